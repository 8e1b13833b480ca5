// Makes a token for a host: its key pair and certificate, other certificates and trusted ones.
#pragma once

#include <string>
#include <vector>

namespace ikeauth {

struct ProvisionOptions {
    std::string state;  // state directory of the token's module; made when absent
    std::string module;  // PKCS #11 module that takes "directory=STATE"; empty: SoftHSM2
    std::string label;
    std::string pin_file;  // user PIN; written (mode 0600) with a random PIN when the file is not there
    std::string so_pin_file;  // likewise for the security officer
    std::vector<std::string> certs;  // PEM certificates whose keys follow
    std::vector<std::string> keys;  // PEM private keys, in the same order
    std::vector<std::string> others;  // PEM certificates, stored as they are
    std::vector<std::string> trusted;  // PEM certificates, stored with the trusted mark
    std::vector<std::string> preshared_keys;  // NAME=FILE; the file is as private as one of a PIN
    std::string key_not_after;  // YYYY-MM-DD: end of the private key's usage; empty: none
};

/// Exit code of `ikeauth provision`; what went wrong is written to stderr.
int RunProvision(const ProvisionOptions& options);

}  // namespace ikeauth
