// The commands of the certificate manager on the management bridge (group bridge::kGroupCertificates). docs/bridge.md lists
// inputs and outputs.
#pragma once

#include <cstdint>

namespace CM {

enum CertCommand : std::uint32_t {
    kCommandEnumCertificates = 0,
    kCommandDeleteCertificate = 1,
    kCommandOpenFile = 2,
    kCommandImportCertificate = 3,
    kCommandImportCrl = 4,
    kCommandExportCertificate = 5,
    kCommandRequestMechanisms = 6,
    kCommandMakeRequest = 7,
    kCommandEnumPresharedKeys = 8,
    kCommandCreatePresharedKey = 9,
    kCommandDeletePresharedKey = 10,
    kCommandEnumCrls = 11,
    kCommandDeleteCrl = 12,
    kCommandBuildChain = 13,
    kCommandDetails = 14,
    kCommandVerify = 15,
    kCommandReload = 16,
    kCertCommands,  // how many
};

}  // namespace CM
