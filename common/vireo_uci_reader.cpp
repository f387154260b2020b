#include "common/vireo_uci_reader.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

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

// Splits one line into words: bare text, 'single' (literal) and "double" quoted
// (backslash escapes) parts, glued when adjacent. False on an unterminated quote.
bool split_words(const std::string &line, std::vector<std::string> *words)
{
    size_t i = 0;
    const size_t n = line.size();
    while (true) {
        while (i < n && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r'))
            i++;
        if (i >= n || line[i] == '#')
            return true;
        std::string word;
        while (i < n && line[i] != ' ' && line[i] != '\t' && line[i] != '\r') {
            const char c = line[i];
            if (c == '\'' || c == '"') {
                const size_t close = line.find(c, i + 1);
                size_t j = i + 1;
                if (c == '\'') {
                    if (close == std::string::npos)
                        return false;
                    word += line.substr(j, close - j);
                    i = close + 1;
                    continue;
                }
                for (; j < n && line[j] != '"'; j++) {
                    if (line[j] == '\\' && j + 1 < n)
                        j++;
                    word += line[j];
                }
                if (j >= n)
                    return false;
                i = j + 1;
            } else if (c == '\\' && i + 1 < n) {
                word += line[i + 1];
                i += 2;
            } else if (c == '#') {
                break;
            } else {
                word += c;
                i++;
            }
        }
        words->push_back(word);
    }
}

bool valid_name(const std::string &s)
{
    if (s.empty())
        return false;
    for (char c : s)
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '_'))
            return false;
    return true;
}

bool valid_type(const std::string &s)
{
    if (s.empty())
        return false;
    for (char c : s)
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '_' || c == '-'))
            return false;
    return true;
}

uci_option *find_option(uci_section *s, const std::string &name)
{
    uci_element *e;
    uci_foreach_element(&s->options, e)
    {
        if (name == e->name)
            return uci_to_option(e);
    }
    return nullptr;
}

// An option line replaces the value; a list line appends (a plain value becomes
// the first item of the list).
bool set_option(uci_section *s, const std::string &name, const std::string &value, bool is_list)
{
    uci_option *o = find_option(s, name);
    if (o && !is_list) {
        free_option(o);
        o = nullptr;
    }
    if (!o) {
        o = new_element<uci_option>(UCI_TYPE_OPTION, name);
        if (!o)
            return false;
        o->section = s;
        if (is_list) {
            o->type = UCI_TYPE_LIST;
            list_init(&o->v.list);
        } else {
            o->type = UCI_TYPE_STRING;
            o->v.string = strdup(value.c_str());
            list_add_tail(&s->options, &o->e.list);
            return o->v.string != nullptr;
        }
        list_add_tail(&s->options, &o->e.list);
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

// Parses the file into p; false on a syntax error or when memory runs out.
bool parse_file(FILE *file, uci_package *p)
{
    uci_section *current = nullptr;
    std::string line;
    int anon = 0;
    for (int c = fgetc(file);; c = fgetc(file)) {
        if (c != '\n' && c != EOF) {
            line += static_cast<char>(c);
            continue;
        }
        std::vector<std::string> w;
        if (!split_words(line, &w))
            return false;
        line.clear();
        if (!w.empty()) {
            if (w[0] == "package") {
                if (w.size() != 2)
                    return false;
            } else if (w[0] == "config") {
                if (w.size() < 2 || w.size() > 3 || !valid_type(w[1]) ||
                    (w.size() == 3 && !valid_name(w[2])))
                    return false;
                const bool anonymous = w.size() == 2;
                const std::string name = anonymous ? "cfg" + std::to_string(++anon) : w[2];
                current = new_element<uci_section>(UCI_TYPE_SECTION, name);
                if (!current)
                    return false;
                list_init(&current->options);
                current->package = p;
                current->anonymous = anonymous;
                list_add_tail(&p->sections, &current->e.list);
                if (!(current->type = strdup(w[1].c_str())))
                    return false;
            } else if (w[0] == "option" || w[0] == "list") {
                if (!current || w.size() != 3 || !valid_name(w[1]))
                    return false;
                if (!set_option(current, w[1], w[2], w[0] == "list"))
                    return false;
            } else {
                return false;
            }
        }
        if (c == EOF)
            return true;
    }
}

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
    FILE *file = fopen(name, "r");
    if (!file)
        return ctx->err = UCI_ERR_NOTFOUND;
    const char *slash = strrchr(name, '/');
    uci_package *p = new_element<uci_package>(UCI_TYPE_PACKAGE, slash ? slash + 1 : name);
    if (!p) {
        fclose(file);
        return ctx->err = UCI_ERR_MEM;
    }
    list_init(&p->sections);
    list_add_tail(&ctx->root, &p->e.list);
    const bool ok = parse_file(file, p);
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
    uci_element *it;
    uci_foreach_element(list, it)
    {
        if (strcmp(name, it->name) == 0) {
            *e = it;
            return UCI_OK;
        }
    }
    return ctx->err = UCI_ERR_NOTFOUND;
}

uci_option *uci_lookup_option(uci_context *ctx, uci_section *s, const char *name)
{
    uci_element *e = nullptr;
    if (uci_lookup_next(ctx, &e, &s->options, name))
        return nullptr;
    return uci_to_option(e);
}
