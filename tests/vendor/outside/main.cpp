// A vendor's program: its own host libraries, the module's public headers, and nothing else of this project. Chooses a
// local certificate, signs with it, verifies the signature and leaves without stopping the module, a reload under way.
//
//     program ROOT.der HOST.der HOST.p8
#include <certmgr/certmgr.h>
#include <certmgr/ike.h>

#include <cstdio>
#include <fstream>
#include <iterator>

#include "vendor_host.h"

namespace {

std::string ReadFile(const char* path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool SelectSignVerify() {
    LPCFG::auth_ike_t rule;
    rule.name = "rule";
    rule.cert_local.emplace_back().subject = "CN=host";
    const TLogIdent ident;
    const CM::SelectLocalResult result =
        CM::IkeSelectLocalCertificate(nullptr, rule, CM::kIgnoreBoundFirst, nullptr, nullptr, ident);
    if (result.status != CM::kLocalAccepted) return false;
    std::printf("chosen %s\n", CM::GetCertInfo(result.cert).subject.c_str());
    const pki_alg_t alg = CM::Ike2GetSignAlg(result.cert);
    std::string signature;
    const bool verified = CM::Ike2Sign(result.cert, alg, "octets", signature, ident) &&
                          CM::Ike2Verify(result.cert, alg, "octets", signature, ident) &&
                          !CM::Ike2Verify(result.cert, alg, "other octets", signature, ident);
    CM::VCertHandleClose(result.cert);
    return verified;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    const auto token = vendor_host::AddToken("card");
    token->AddCertificate(ReadFile(argv[1]), {.trusted = true});
    token->AddPersonal(ReadFile(argv[2]), vendor_host::KeyFromPkcs8(ReadFile(argv[3])));
    CM::CertEngine_Init();
    CM::Init();
    CM::Reload();
    bool done = SelectSignVerify();
    done = vendor_host::BeginReload(*token) && done;
    std::puts(done ? "done" : vendor_host::AllText().c_str());
    return done ? 0 : 1;
}
