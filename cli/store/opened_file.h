// A file that the daemon reads for this client.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "cli/session.h"
#include "cli/store/records.h"
#include "platform/base.h"

namespace certmgrctl {

/// A certificate or CRL of the file: the part it stands in, its position there, and the tokens proposed for it.
struct FileCert {
    std::size_t part = 0;
    std::uint32_t index = 0;
    CertImportOption option;
    std::vector<TokenInfo> tokens;
};
struct FileCrl {
    std::size_t part = 0;
    std::uint32_t index = 0;
    CRLInfo info;
};

/// Has all parts of a file opened, the blocks of a PEM bundle one by one. Asks for a password when one is needed. What
/// cannot be read is noted; a file without anything readable is a Failure.
class OpenedFile {
  public:
    OpenedFile(Context& context, const std::string& path, const std::string& password_file);

    /// The tokens of the daemon.
    const std::vector<TokenInfo>& tokens() const { return tokens_; }
    const std::vector<FileCert>& certs() const { return certs_; }
    const std::vector<FileCrl>& crls() const { return crls_; }
    /// The blocks of a bundle, counted from 1, that are no keys and could not be read.
    const std::vector<std::size_t>& unreadable() const { return unreadable_; }
    /// Failure when there is one.
    void RequireAllRead() const;

    /// Makes a part the one whose entries the daemon imports.
    void Open(std::size_t part);

  private:
    certmgr_client::FileContent Read(std::size_t part);
    certmgr_client::FileContent ReadWithPassword(std::size_t part);
    void Keep(std::size_t part, certmgr_client::FileContent content);
    void NoteUnreadable(std::size_t part);

    Context& context_;
    std::string path_;
    std::string password_file_;
    vpnfc::SecretString content_;
    vpnfc::SecretString password_;
    std::vector<std::string_view> parts_;  // of content_
    std::size_t open_part_ = 0;
    std::vector<TokenInfo> tokens_;
    std::vector<FileCert> certs_;
    std::vector<FileCrl> crls_;
    std::vector<std::size_t> unreadable_;
};

}  // namespace certmgrctl
