// SPDX-License-Identifier: Apache-2.0
#include "tools/pack/pack_token.h"

#include <cstring>
#include <p11-kit/p11-kit.h>
#include <p11-kit/uri.h>
#include <vector>

struct pack_token_key {
    CK_FUNCTION_LIST *module = nullptr;   // the one the URI's module-path named
    CK_FUNCTION_LIST **modules = nullptr; // or every module registered with p11-kit
    CK_FUNCTION_LIST *used = nullptr;     // the module holding the token
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    CK_OBJECT_HANDLE private_key = CK_INVALID_HANDLE;
    CK_OBJECT_HANDLE public_key = CK_INVALID_HANDLE;
};

static void token_key_close(pack_token_key *key)
{
    if (key->used && key->session != CK_INVALID_HANDLE)
        key->used->C_CloseSession(key->session); // the last session's close logs out
    if (key->module) {
        p11_kit_module_finalize(key->module);
        p11_kit_module_release(key->module);
    }
    if (key->modules)
        p11_kit_modules_finalize_and_release(key->modules);
    delete key;
}

bool is_pkcs11_uri(const std::string &arg)
{
    return arg.rfind("pkcs11:", 0) == 0;
}

namespace
{

using uri_ptr = std::unique_ptr<P11KitUri, decltype(&p11_kit_uri_free)>;

std::string pin_of(const P11KitUri *uri, const std::string &text)
{
    if (const char *value = p11_kit_uri_get_pin_value(uri))
        return value;
    if (const char *source = p11_kit_uri_get_pin_source(uri)) {
        const bytes pin = read_all(source);
        std::string s(pin.begin(), pin.end());
        while (!s.empty() && (s.back() == '\n' || s.back() == '\r'))
            s.pop_back();
        return s;
    }
    throw pack_error("'" + text + "' gives no pin-value or pin-source");
}

// The first slot of module whose token the URI matches, or none.
bool find_token(CK_FUNCTION_LIST *module, P11KitUri *uri, CK_SLOT_ID *slot)
{
    CK_ULONG count = 0;
    if (module->C_GetSlotList(CK_TRUE, nullptr, &count) != CKR_OK || count == 0)
        return false;
    std::vector<CK_SLOT_ID> slots(count);
    if (module->C_GetSlotList(CK_TRUE, slots.data(), &count) != CKR_OK)
        return false;
    for (CK_ULONG i = 0; i < count; i++) {
        CK_TOKEN_INFO info;
        if (module->C_GetTokenInfo(slots[i], &info) == CKR_OK &&
            p11_kit_uri_match_token_info(uri, &info) == 1) {
            *slot = slots[i];
            return true;
        }
    }
    return false;
}

// The object of this class that the URI's object attributes (label, id) name.
CK_OBJECT_HANDLE find_object(pack_token_key *key, P11KitUri *uri, CK_OBJECT_CLASS cls)
{
    std::vector<CK_ATTRIBUTE> want = {{CKA_CLASS, &cls, sizeof(cls)}};
    CK_ULONG n = 0;
    CK_ATTRIBUTE *attrs = p11_kit_uri_get_attributes(uri, &n);
    for (CK_ULONG i = 0; i < n; i++)
        if (attrs[i].type == CKA_LABEL || attrs[i].type == CKA_ID)
            want.push_back(attrs[i]);
    CK_OBJECT_HANDLE found = CK_INVALID_HANDLE;
    CK_ULONG got = 0;
    if (key->used->C_FindObjectsInit(key->session, want.data(), want.size()) == CKR_OK) {
        key->used->C_FindObjects(key->session, &found, 1, &got);
        key->used->C_FindObjectsFinal(key->session);
    }
    return got == 1 ? found : CK_INVALID_HANDLE;
}

bytes attribute(pack_token_key *key, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type)
{
    CK_ATTRIBUTE a = {type, nullptr, 0};
    if (key->used->C_GetAttributeValue(key->session, object, &a, 1) != CKR_OK ||
        a.ulValueLen == CK_UNAVAILABLE_INFORMATION)
        return {};
    bytes value(a.ulValueLen);
    a.pValue = value.data();
    if (key->used->C_GetAttributeValue(key->session, object, &a, 1) != CKR_OK)
        return {};
    return value;
}

bytes sign(pack_token_key *key, CK_MECHANISM_TYPE type, const bytes &data)
{
    CK_MECHANISM mechanism = {type, nullptr, 0};
    bytes in = data;
    CK_ULONG len = 0;
    if (key->used->C_SignInit(key->session, &mechanism, key->private_key) != CKR_OK ||
        key->used->C_Sign(key->session, in.data(), in.size(), nullptr, &len) != CKR_OK)
        throw pack_error("the token refused to sign");
    bytes sig(len);
    if (key->used->C_Sign(key->session, in.data(), in.size(), sig.data(), &len) != CKR_OK)
        throw pack_error("the token refused to sign");
    sig.resize(len);
    return sig;
}

} // namespace

token_key_ptr token_key_open(const std::string &text, token_key_type type)
{
    uri_ptr uri(p11_kit_uri_new(), p11_kit_uri_free);
    if (p11_kit_uri_parse(text.c_str(), P11_KIT_URI_FOR_ANY, uri.get()) != P11_KIT_URI_OK)
        throw pack_error("'" + text + "' is not a PKCS#11 URI");
    token_key_ptr key(new pack_token_key, token_key_close);
    CK_SLOT_ID slot = 0;
    if (const char *path = p11_kit_uri_get_module_path(uri.get())) {
        key->module = p11_kit_module_load(path, 0);
        if (!key->module || p11_kit_module_initialize(key->module) != CKR_OK) {
            if (key->module)
                p11_kit_module_release(key->module);
            key->module = nullptr;
            throw pack_error(std::string("cannot load the PKCS#11 module '") + path + "'");
        }
        if (find_token(key->module, uri.get(), &slot))
            key->used = key->module;
    } else {
        key->modules = p11_kit_modules_load_and_initialize(0);
        for (CK_FUNCTION_LIST **m = key->modules; m && *m && !key->used; m++)
            if (find_token(*m, uri.get(), &slot))
                key->used = *m;
    }
    if (!key->used)
        throw pack_error("no token matches '" + text + "'");
    const std::string pin = pin_of(uri.get(), text);
    if (key->used->C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &key->session) !=
        CKR_OK)
        throw pack_error("cannot open a session with the token of '" + text + "'");
    std::vector<CK_UTF8CHAR> pin_bytes(pin.begin(), pin.end());
    // Both keys of a build may live in one token, whose login the sessions share.
    const CK_RV login =
        key->used->C_Login(key->session, CKU_USER, pin_bytes.data(), pin_bytes.size());
    if (login != CKR_OK && login != CKR_USER_ALREADY_LOGGED_IN)
        throw pack_error("the token of '" + text + "' refused the PIN");
    key->private_key = find_object(key.get(), uri.get(), CKO_PRIVATE_KEY);
    key->public_key = find_object(key.get(), uri.get(), CKO_PUBLIC_KEY);
    if (key->private_key == CK_INVALID_HANDLE)
        throw pack_error("no single private key matches '" + text + "'");
    const bytes key_type = attribute(key.get(), key->private_key, CKA_KEY_TYPE);
    CK_KEY_TYPE kt = CKK_VENDOR_DEFINED;
    if (key_type.size() == sizeof(kt))
        memcpy(&kt, key_type.data(), sizeof(kt));
    if (type == token_key_type::rsa1024 &&
        (kt != CKK_RSA || attribute(key.get(), key->private_key, CKA_MODULUS).size() != 128))
        throw pack_error("'" + text + "' is not a 1024-bit RSA key");
    if (type == token_key_type::ed25519 &&
        (kt != CKK_EC_EDWARDS || token_ed25519_public(key.get()).empty()))
        throw pack_error("'" + text + "' is not an Ed25519 key with its public key beside it");
    return key;
}

bytes token_sign_digest(pack_token_key *key, const bytes &digest)
{
    const bytes sig = sign(key, CKM_SHA1_RSA_PKCS, digest);
    if (sig.size() != 128)
        throw pack_error("the token's RSA signature is not 128 bytes");
    return bytes(sig.rbegin(), sig.rend());
}

bytes token_ed25519_sign(pack_token_key *key, const bytes &message)
{
    const bytes sig = sign(key, CKM_EDDSA, message);
    if (sig.size() != 64)
        throw pack_error("the token's Ed25519 signature is not 64 bytes");
    return sig;
}

bytes token_ed25519_public(pack_token_key *key)
{
    if (key->public_key == CK_INVALID_HANDLE)
        return {};
    // CKA_EC_POINT: the 32 bytes, or (as most tokens give it) a DER OCTET STRING of them.
    const bytes point = attribute(key, key->public_key, CKA_EC_POINT);
    if (point.size() == 32)
        return point;
    if (point.size() == 34 && point[0] == 0x04 && point[1] == 32)
        return bytes(point.begin() + 2, point.end());
    return {};
}
