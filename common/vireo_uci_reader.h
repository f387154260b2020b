// SPDX-License-Identifier: Apache-2.0
// A small reader of uci files offering the subset of libuci's types and calls that the tool
// uses, with libuci's names. It reads a file as libuci's parser does, quirks included:
// abbreviated commands, quotes glued to words, multi-line quotes, backslash line joins,
// comments, ';' between commands, merged named sections, strict errors.
#pragma once

#include <cstddef>

struct uci_list {
    uci_list *next;
    uci_list *prev;
};

enum uci_type { UCI_TYPE_PACKAGE = 1, UCI_TYPE_SECTION, UCI_TYPE_OPTION, UCI_TYPE_ITEM };
enum uci_option_type { UCI_TYPE_STRING = 0, UCI_TYPE_LIST = 1 };
enum {
    UCI_OK = 0,
    UCI_ERR_MEM,
    UCI_ERR_INVAL,
    UCI_ERR_NOTFOUND,
    UCI_ERR_IO,
    UCI_ERR_PARSE,
    UCI_ERR_DUPLICATE,
    UCI_ERR_UNKNOWN
};

// The list node comes first in every element, so an element is its list node.
struct uci_element {
    uci_list list;
    uci_type type;
    char *name;
};

struct uci_package {
    uci_element e;
    uci_list sections;
};

struct uci_section {
    uci_element e;
    uci_list options;
    uci_package *package;
    bool anonymous;
    char *type;
};

struct uci_option {
    uci_element e;
    uci_section *section;
    uci_option_type type;
    union {
        uci_list list;
        char *string;
    } v;
};

struct uci_context {
    uci_list root; // loaded packages
    int err;
};

#define uci_list_to_element(ptr) reinterpret_cast<uci_element *>(ptr)
#define uci_foreach_element(_list, _ptr)                                                           \
    for (_ptr = uci_list_to_element((_list)->next); &_ptr->list != (_list);                        \
         _ptr = uci_list_to_element(_ptr->list.next))
#define uci_to_section(ptr) reinterpret_cast<uci_section *>(ptr)
#define uci_to_option(ptr) reinterpret_cast<uci_option *>(ptr)

uci_context *uci_alloc_context();
void uci_free_context(uci_context *ctx);
// Loads a package file by path (its file name is the package name); UCI_OK, or
// UCI_ERR_NOTFOUND (no regular file), UCI_ERR_INVAL (a file name that is no package name),
// UCI_ERR_DUPLICATE (a package of that name is loaded), UCI_ERR_PARSE, UCI_ERR_MEM.
int uci_load(uci_context *ctx, const char *name, uci_package **package);
int uci_unload(uci_context *ctx, uci_package *p);
// Finds the element named name in list: UCI_OK with *e set, or UCI_ERR_NOTFOUND.
int uci_lookup_next(uci_context *ctx, uci_element **e, uci_list *list, const char *name);
// An option of the section by name, or none.
uci_option *uci_lookup_option(uci_context *ctx, uci_section *s, const char *name);
