// Pieces of the rendering of extensions.
#pragma once

#include <openssl/stack.h>
#include <openssl/x509v3.h>

#include <cstddef>
#include <string>

#include "certmgr/cert_engine.h"

namespace cert_engine {

template <typename T, typename Stack, typename Visit>
void ForEach(const Stack* stack, Visit visit) {
    const auto* items = reinterpret_cast<const OPENSSL_STACK*>(stack);
    for (int i = 0; i < OPENSSL_sk_num(items); ++i) visit(*static_cast<T*>(OPENSSL_sk_value(items, i)));
}

// General names.
void AppendGeneralName(const GENERAL_NAME& name, std::string& text);
/// All of them, with commas between; empty for none.
std::string GeneralNamesText(const GENERAL_NAMES* names);
/// Takes over a name that identities of peers are compared with; of several of a kind the last counts.
void KeepAlternativeName(const GENERAL_NAME& name, AltSubject& names);

// Unknown extensions.
/// Values up to this many bytes together are printed. Printing costs far more than parsing, and makes of a deeply nested
/// value a text eighty times as long: without bounds a certificate could keep a thread busy for seconds.
inline constexpr std::size_t kMaxPrintedValueBytes = 16384;
/// Name as it is listed, without the mark of criticality.
std::string UnknownName(X509_EXTENSION* extension);
/// Appends name and value; of a value beyond `printable_bytes`, which it takes from, only the size.
void cert_ext_Unknown(X509_EXTENSION* extension, CertExtentions& texts, std::size_t& printable_bytes);

}  // namespace cert_engine
