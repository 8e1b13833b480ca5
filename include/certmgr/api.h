// Export mark of libcertmgr. The library is built with hidden visibility; what carries this mark is its interface.
//
// Defaults for every header in include/certmgr/:
//  - byte strings (DER, digests, key identifiers) are std::string; names are printable UTF-8 text;
//  - pointers passed in are borrowed for the call;
//  - a `const CM::X509Cert*` handed out carries one reference, given back with CM::VCertHandleClose;
//  - functions are safe to call from any thread between CM::Init and CM::Finit unless their comment says otherwise;
//  - nothing throws except the text "CommandStreamError" where a comment says so.
#pragma once

#define CM_API __attribute__((visibility("default")))
