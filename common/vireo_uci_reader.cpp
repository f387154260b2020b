// SPDX-License-Identifier: Apache-2.0
#include "common/vireo_uci_reader.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>

namespace
{

void list_init(uci_list *l)
{
    l->next = l->prev = l;
}

void list_add_tail(uci_list *l, uci_list *node)
{
    node->prev = l->prev;
    node->next = l;
    l->prev->next = node;
    l->prev = node;
}

void list_del(uci_list *node)
{
    node->prev->next = node->next;
    node->next->prev = node->prev;
    list_init(node);
}

template <typename T>
T *new_element(uci_type type, const std::string &name)
{
    T *obj = static_cast<T *>(calloc(1, sizeof(T)));
    if (!obj)
        return nullptr;
    obj->e.type = type;
    obj->e.name = strdup(name.c_str());
    list_init(&obj->e.list);
    if (!obj->e.name) {
        free(obj);
        return nullptr;
    }
    return obj;
}

uci_element *new_item(const std::string &value)
{
    uci_element *e = static_cast<uci_element *>(calloc(1, sizeof(uci_element)));
    if (!e)
        return nullptr;
    e->type = UCI_TYPE_ITEM;
    e->name = strdup(value.c_str());
    list_init(&e->list);
    if (!e->name) {
        free(e);
        return nullptr;
    }
    return e;
}

void free_items(uci_list *list)
{
    while (list->next != list) {
        uci_element *item = uci_list_to_element(list->next);
        list_del(&item->list);
        free(item->name);
        free(item);
    }
}

void free_option(uci_option *o)
{
    list_del(&o->e.list);
    if (o->type == UCI_TYPE_LIST)
        free_items(&o->v.list);
    else
        free(o->v.string);
    free(o->e.name);
    free(o);
}

void free_section(uci_section *s)
{
    list_del(&s->e.list);
    while (s->options.next != &s->options)
        free_option(uci_to_option(uci_list_to_element(s->options.next)));
    free(s->type);
    free(s->e.name);
    free(s);
}

void free_package(uci_package *p)
{
    list_del(&p->e.list);
    while (p->sections.next != &p->sections)
        free_section(uci_to_section(uci_list_to_element(p->sections.next)));
    free(p->e.name);
    free(p);
}

bool is_space(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

bool is_alnum(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

// Names of sections and options: letters, digits and '_'. Package names may also hold '-';
// section types any printable character but the space.
enum class name_kind { none, name, package };

bool valid_text(const std::string &s, name_kind kind)
{
    if (s.empty())
        return false;
    for (char ch : s) {
        const unsigned char c = static_cast<unsigned char>(ch);
        if (is_alnum(ch) || ch == '_' || (ch == '-' && kind == name_kind::package))
            continue;
        if (kind != name_kind::none || c < 33 || c > 126)
            return false;
    }
    return true;
}

uci_element *find_element(uci_list *list, const std::string &name)
{
    uci_element *e;
    uci_foreach_element(list, e)
    {
        if (name == e->name)
            return e;
    }
    return nullptr;
}

// An unnamed section is called "cfg", its two-digit section count, and four digits of a
// hash of its type, as libuci names it, so lookups by that name find the same section.
std::string anonymous_name(int count, const std::string &type)
{
    uint32_t hash = 5381;
    for (char c : type)
        hash = hash * 33 + static_cast<uint32_t>(static_cast<unsigned char>(c));
    char buf[16];
    snprintf(buf, sizeof(buf), "cfg%02x%04x", count, (hash & 0x7FFFFFFFu) % (1u << 16));
    return buf;
}

// Reads a package file line by line into a buffer that it edits in place, as libuci does:
// an argument is unquoted onto its own start and ended with a NUL, so a ';' right behind an
// unquoted word is overwritten and ends the line. Quotes and backslash line joins pull the
// next line into the buffer at the current place. Any error ends the whole load.
class parser
{
  public:
    parser(FILE *file, uci_package *package) : file_(file), package_(package) {}

    bool run()
    {
        while (!feof(file_)) {
            pos_ = 0;
            fetch(0);
            if (at(0) && !parse_line())
                return false;
        }
        return true;
    }

  private:
    FILE *file_;
    uci_package *package_;
    uci_section *section_ = nullptr;
    int sections_ = 0;
    std::string buf_;
    size_t pos_ = 0;

    char at(size_t i) const
    {
        return i < buf_.size() ? buf_[i] : '\0';
    }
    char cur() const
    {
        return at(pos_);
    }
    void terminate(size_t i)
    {
        if (i < buf_.size())
            buf_[i] = '\0';
    }
    // The text from i up to the next NUL.
    std::string text_at(size_t i) const
    {
        return i < buf_.size() ? std::string(buf_.c_str() + i) : std::string();
    }

    // Replaces the buffer from offset on with the next line of the file, newline included.
    void fetch(size_t offset)
    {
        buf_.resize(offset);
        for (int c = fgetc(file_); c != EOF; c = fgetc(file_)) {
            buf_ += static_cast<char>(c);
            if (c == '\n')
                break;
        }
    }

    void skip_space()
    {
        while (cur() && is_space(cur()))
            pos_++;
    }

    void copy_char(size_t *target)
    {
        buf_[(*target)++] = buf_[pos_++];
    }

    // After a backslash: false when it joined the next line (backslash at the line end),
    // true when the character behind it is to be taken literally.
    bool backslash()
    {
        pos_++;
        const char c = cur();
        if (!c || c == '\n' || (c == '\r' && at(pos_ + 1) == '\n' && !at(pos_ + 2))) {
            fetch(pos_);
            return false;
        }
        return true;
    }

    // Copies a quoted part to target; backslash escapes only between double quotes. A quote
    // left open at a line end goes on over the next line, newline included.
    bool quoted(size_t *target, char quote)
    {
        pos_++;
        while (true) {
            const char c = cur();
            if (c == quote) {
                pos_++;
                return true;
            }
            if (!c) {
                fetch(pos_);
                if (!cur())
                    return false; // the file ends inside the quotes
                continue;
            }
            if (c == '\\' && quote == '"' && !backslash())
                continue;
            copy_char(target);
        }
    }

    // One argument, unquoted onto target: quoted and bare parts glue until a space; '#'
    // starts a comment, ';' ends the command.
    bool word(size_t *target)
    {
        bool next = true;
        do {
            const char c = cur();
            if (c == '\'' || c == '"') {
                if (!quoted(target, c))
                    return false;
            } else if (c == '#') {
                terminate(pos_);
                break;
            } else if (!c) {
                break;
            } else if (c == ';') {
                next = false;
                break;
            } else if (c == '\\') {
                if (!backslash())
                    continue;
                copy_char(target);
            } else {
                copy_char(target);
            }
        } while (cur() && !is_space(cur()));
        if (cur() && next)
            pos_++;
        if (*target < buf_.size())
            buf_[*target] = '\0';
        return true;
    }

    // The next argument of a command; a required one must not be empty, and a name must be
    // a valid name of its kind.
    bool next_arg(std::string *arg, bool required, name_kind kind)
    {
        skip_space();
        const size_t start = pos_;
        size_t target = pos_;
        if (cur() == ';') {
            terminate(pos_);
            pos_++;
        } else if (!word(&target)) {
            return false;
        }
        *arg = text_at(start);
        if (arg->empty())
            return !required;
        return kind == name_kind::none || valid_text(*arg, kind);
    }

    bool at_end_of_command()
    {
        std::string extra;
        skip_space();
        return next_arg(&extra, false, name_kind::none) && extra.empty();
    }

    bool parse_line()
    {
        skip_space();
        while (true) {
            // The command word ends at a space or tab, which becomes its NUL.
            size_t begin = pos_;
            while (at(begin) == ' ' || at(begin) == '\t')
                begin++;
            if (!at(begin))
                return true;
            size_t end = begin;
            while (at(end) && at(end) != ' ' && at(end) != '\t')
                end++;
            const std::string cmd = buf_.substr(begin, end - begin);
            if (cmd[0] == '#')
                return true;
            if (end >= buf_.size())
                return false; // the word runs to the end of the file: no argument
            buf_[end] = '\0';
            const std::string rest = cmd.substr(1);
            bool ok;
            if (cmd[0] == 'p' && (rest.empty() || rest == "ackage")) {
                ok = parse_package(end + 1);
            } else if (cmd[0] == 'c' && (rest.empty() || rest == "onfig")) {
                ok = parse_config(end + 1);
            } else if (cmd[0] == 'o' && (rest.empty() || rest == "ption")) {
                ok = parse_option(end + 1, false);
            } else if (cmd[0] == 'l' && (rest.empty() || rest == "ist")) {
                ok = parse_option(end + 1, true);
            } else {
                return false;
            }
            if (!ok)
                return false;
        }
    }

    // "package NAME" names the package of an imported stream; a load keeps the file's name.
    bool parse_package(size_t args)
    {
        pos_ = args;
        std::string name;
        return next_arg(&name, true, name_kind::package) && at_end_of_command();
    }

    bool parse_config(size_t args)
    {
        pos_ = args;
        std::string type, name;
        if (!next_arg(&type, true, name_kind::none) || !valid_text(type, name_kind::none) ||
            !next_arg(&name, false, name_kind::name) || !at_end_of_command())
            return false;
        if (!name.empty()) {
            // A section named again goes on collecting options; another type is an error.
            if (uci_element *e = find_element(&package_->sections, name)) {
                section_ = uci_to_section(e);
                return type == section_->type;
            }
        }
        const bool anonymous = name.empty();
        sections_++;
        uci_section *s = new_element<uci_section>(
            UCI_TYPE_SECTION, anonymous ? anonymous_name(sections_, type) : name);
        if (!s)
            return false;
        list_init(&s->options);
        s->package = package_;
        s->anonymous = anonymous;
        list_add_tail(&package_->sections, &s->e.list);
        section_ = s;
        return (s->type = strdup(type.c_str())) != nullptr;
    }

    bool parse_option(size_t args, bool is_list)
    {
        if (!section_)
            return false;
        pos_ = args;
        std::string name, value;
        if (!next_arg(&name, true, name_kind::name) || !next_arg(&value, false, name_kind::none) ||
            !at_end_of_command())
            return false;
        return is_list ? add_list_item(name, value) : set_option(name, value);
    }

    // A new option goes to the end; a new value keeps the option's place, and so does a
    // plain value replacing a list. An empty value changes nothing.
    bool set_option(const std::string &name, const std::string &value)
    {
        if (value.empty())
            return true;
        uci_element *old = find_element(&section_->options, name);
        uci_option *o = new_element<uci_option>(UCI_TYPE_OPTION, name);
        if (!o)
            return false;
        o->section = section_;
        o->type = UCI_TYPE_STRING;
        o->v.string = strdup(value.c_str());
        list_add_tail(old ? old->list.next : &section_->options, &o->e.list);
        if (old)
            free_option(uci_to_option(old));
        return o->v.string != nullptr;
    }

    // A list item, empty ones too; a plain value becomes the first item of the list.
    bool add_list_item(const std::string &name, const std::string &value)
    {
        uci_option *o = uci_to_option(find_element(&section_->options, name));
        if (!o) {
            o = new_element<uci_option>(UCI_TYPE_OPTION, name);
            if (!o)
                return false;
            o->section = section_;
            o->type = UCI_TYPE_LIST;
            list_init(&o->v.list);
            list_add_tail(&section_->options, &o->e.list);
        } else if (o->type == UCI_TYPE_STRING) {
            uci_element *first = new_item(o->v.string);
            if (!first)
                return false;
            free(o->v.string);
            o->type = UCI_TYPE_LIST;
            list_init(&o->v.list);
            list_add_tail(&o->v.list, &first->list);
        }
        uci_element *item = new_item(value);
        if (!item)
            return false;
        list_add_tail(&o->v.list, &item->list);
        return true;
    }
};

} // namespace

uci_context *uci_alloc_context()
{
    uci_context *ctx = static_cast<uci_context *>(calloc(1, sizeof(uci_context)));
    if (ctx)
        list_init(&ctx->root);
    return ctx;
}

void uci_free_context(uci_context *ctx)
{
    if (!ctx)
        return;
    while (ctx->root.next != &ctx->root)
        free_package(reinterpret_cast<uci_package *>(uci_list_to_element(ctx->root.next)));
    free(ctx);
}

int uci_load(uci_context *ctx, const char *name, uci_package **package)
{
    if (!ctx || !name || !package)
        return UCI_ERR_INVAL;
    *package = nullptr;
    struct stat st;
    if (stat(name, &st) != 0 || !S_ISREG(st.st_mode))
        return ctx->err = UCI_ERR_NOTFOUND;
    // The file name is the package name: printable, without spaces.
    const char *slash = strrchr(name, '/');
    const std::string package_name = slash ? slash + 1 : name;
    if (!valid_text(package_name, name_kind::none))
        return ctx->err = UCI_ERR_INVAL;
    if (find_element(&ctx->root, package_name))
        return ctx->err = UCI_ERR_DUPLICATE;
    FILE *file = fopen(name, "r");
    if (!file)
        return ctx->err = UCI_ERR_NOTFOUND;
    uci_package *p = new_element<uci_package>(UCI_TYPE_PACKAGE, package_name);
    if (!p) {
        fclose(file);
        return ctx->err = UCI_ERR_MEM;
    }
    list_init(&p->sections);
    list_add_tail(&ctx->root, &p->e.list);
    const bool ok = parser(file, p).run();
    fclose(file);
    if (!ok) {
        free_package(p);
        return ctx->err = UCI_ERR_PARSE;
    }
    *package = p;
    return UCI_OK;
}

int uci_unload(uci_context *ctx, uci_package *p)
{
    if (!ctx || !p)
        return UCI_ERR_INVAL;
    free_package(p);
    return UCI_OK;
}

int uci_lookup_next(uci_context *ctx, uci_element **e, uci_list *list, const char *name)
{
    if (!ctx || !e || !list || !name)
        return UCI_ERR_INVAL;
    *e = find_element(list, name);
    return *e ? UCI_OK : (ctx->err = UCI_ERR_NOTFOUND);
}

uci_option *uci_lookup_option(uci_context *ctx, uci_section *s, const char *name)
{
    uci_element *e = nullptr;
    if (uci_lookup_next(ctx, &e, &s->options, name))
        return nullptr;
    return uci_to_option(e);
}
