// SPDX-License-Identifier: Apache-2.0
#include "tools/pack/pack_build.h"

#include <cstring>
#include <set>

namespace
{

const char *const kRecordNames[] = {"partition-table", "support-list", "firmware-info"};

std::string dir_of(const std::string &path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

std::string resolve(const std::string &dir, const std::string &file)
{
    return !file.empty() && file[0] == '/' ? file : dir + "/" + file;
}

// The 16-byte content header, then the content.
bytes with_content_header(const bytes &content)
{
    bytes out(16, 0);
    put_be32(out.data(), 0xAA55D98F);
    put_be32(out.data() + 4, 0x04E955AA);
    put_be32(out.data() + 8, static_cast<uint32_t>(content.size()));
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

bytes text_bytes(const std::string &s)
{
    return bytes(s.begin(), s.end());
}

// A record document: a file path (checked to be JSON) or the document inline. A support
// list given as a bare array is wrapped in its object.
bytes record_document(const char *name, const cJSON *value, const std::string &dir,
                      const std::string &where)
{
    if (cJSON_IsString(value)) {
        const std::string path = resolve(dir, value->valuestring);
        const bytes data = read_all(path);
        parse_json(std::string(data.begin(), data.end()), path);
        return data;
    }
    if (strcmp(name, "support-list") == 0 && cJSON_IsArray(value)) {
        json_ptr wrapped(cJSON_CreateObject(), cJSON_Delete);
        cJSON_AddItemToObject(wrapped.get(), "support-list", cJSON_Duplicate(value, 1));
        return text_bytes(print_json(wrapped.get()));
    }
    if (cJSON_IsObject(value))
        return text_bytes(print_json(value));
    throw pack_error(where + ": \"" + name + "\" must be a file name or a JSON document");
}

void check_name(const std::string &name, const std::string &where)
{
    if (name.empty() || name.size() > 31)
        throw pack_error(where + ": partition name '" + name + "' must have 1 to 31 characters");
    for (char c : name)
        if (!isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_' && c != '.')
            throw pack_error(where + ": partition name '" + name +
                             "' may hold only letters, digits, '-', '_' and '.'");
}

pack_image read_image(const cJSON *obj, const std::string &dir, const std::string &where)
{
    if (!cJSON_IsObject(obj))
        throw pack_error(where + ": an image must be a JSON object");
    pack_image image;
    for (const char *name : kRecordNames) {
        const cJSON *value = cJSON_GetObjectItemCaseSensitive(obj, name);
        if (value)
            image.partitions.push_back(
                {name, with_content_header(record_document(name, value, dir, where))});
    }
    const cJSON *parts = cJSON_GetObjectItemCaseSensitive(obj, "partitions");
    if (parts && !cJSON_IsArray(parts))
        throw pack_error(where + ": \"partitions\" must be an array");
    int index = 0;
    for (const cJSON *p = parts ? parts->child : nullptr; p; p = p->next, index++) {
        const std::string at = where + ", partition " + std::to_string(index);
        const cJSON *name = cJSON_GetObjectItemCaseSensitive(p, "name");
        const cJSON *file = cJSON_GetObjectItemCaseSensitive(p, "file");
        const cJSON *header = cJSON_GetObjectItemCaseSensitive(p, "content-header");
        if (!cJSON_IsString(name))
            throw pack_error(at + ": \"name\" (a string) is required");
        if (!cJSON_IsString(file))
            throw pack_error(at + ": \"file\" (a string) is required");
        if (header && !cJSON_IsBool(header))
            throw pack_error(at + ": \"content-header\" must be true or false");
        bytes content = read_all(resolve(dir, file->valuestring));
        if (header && cJSON_IsTrue(header))
            content = with_content_header(content);
        image.partitions.push_back({name->valuestring, std::move(content)});
    }
    std::set<std::string> seen;
    for (const pack_partition &p : image.partitions) {
        check_name(p.name, where);
        if (!seen.insert(p.name).second)
            throw pack_error(where + ": partition '" + p.name + "' is listed twice");
    }
    if (image.partitions.size() > 64)
        throw pack_error(where + ": more than 64 partitions");
    return image;
}

} // namespace

std::vector<pack_image> read_manifest(const std::string &path)
{
    const bytes text = read_all(path);
    json_ptr root = parse_json(std::string(text.begin(), text.end()), path);
    const cJSON *images = cJSON_GetObjectItemCaseSensitive(root.get(), "images");
    if (!cJSON_IsArray(images) || cJSON_GetArraySize(images) == 0)
        throw pack_error(path + ": \"images\" must be a non-empty array");
    std::vector<pack_image> out;
    int index = 0;
    for (const cJSON *img = images->child; img; img = img->next, index++)
        out.push_back(read_image(img, dir_of(path), path + ": image " + std::to_string(index)));
    return out;
}
