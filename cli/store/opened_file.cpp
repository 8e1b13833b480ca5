#include "cli/store/opened_file.h"

#include "cli/files.h"
#include "cli/terminal/prompt.h"
#include "cli/terminal/text.h"

namespace certmgrctl {
namespace {

using certmgr_client::FileContent;

constexpr std::uint32_t kWrongPassword = 2;

}  // namespace

OpenedFile::OpenedFile(Context& context, const std::string& path, const std::string& password_file)
    : context_(context),
      path_(path),
      password_file_(password_file),
      content_(ReadWholeFile(path)),
      parts_(PartsOf(content_.get())) {
    for (std::size_t part = 0; part < parts_.size(); ++part) {
        FileContent content = ReadWithPassword(part);
        if (content.status == 0) {
            Keep(part, std::move(content));
        } else {
            NoteUnreadable(part);
        }
    }
    if (!certs_.empty() || !crls_.empty()) return;
    throw Failure(kExitFailed, path + " holds nothing that can be read",
                  {"Certificates and CRLs (DER, PEM), PKCS #7 and PKCS #12 files can."});
}

FileContent OpenedFile::Read(std::size_t part) {
    open_part_ = part;
    return context_.session.Take(context_.session.manager().OpenFile(parts_[part], password_));
}

/// A password is asked for only when the file needs one, and again as long as it is wrong and somebody types it.
FileContent OpenedFile::ReadWithPassword(std::size_t part) {
    const std::string question = "Password of " + path_;
    FileContent content = Read(part);
    while (content.status == kWrongPassword) {
        const bool tried = !password_.empty();
        if (tried && !(password_file_.empty() && CanAsk())) {
            throw Failure(kExitLogin, "the password of " + path_ + " is wrong");
        }
        if (tried) context_.console.Note("That is not the password.");
        password_ = ReadSecret(password_file_, question, "Use --password-file FILE.");
        if (password_.empty()) throw Failure(kExitLogin, path_ + " needs a password");
        content = Read(part);
    }
    return content;
}

void OpenedFile::Keep(std::size_t part, FileContent content) {
    for (std::uint32_t i = 0; i < content.certs.size(); ++i) {
        FileCert& cert =
            certs_.emplace_back(FileCert{.part = part, .index = i, .option = content.certs[i], .tokens = {}});
        for (const std::uint32_t position : cert.option.tokens) {
            if (position < content.tokens.size()) cert.tokens.push_back(content.tokens[position]);
        }
    }
    for (std::uint32_t i = 0; i < content.crls.size(); ++i) {
        crls_.push_back({.part = part, .index = i, .info = std::move(content.crls[i])});
    }
    tokens_ = std::move(content.tokens);
}

void OpenedFile::NoteUnreadable(std::size_t part) {
    if (parts_[part].find("PRIVATE KEY-----") != std::string_view::npos) {
        context_.console.Note("A private key of " + path_ +
                              " is passed over: keys are imported from PKCS #12 files alone. Make one with");
        context_.console.Note("  openssl pkcs12 -export -inkey KEY.pem -in CERTIFICATE.pem -out FILE.p12");
    } else if (parts_.size() > 1 && parts_[part].find(" PARAMETERS-----") == std::string_view::npos) {
        unreadable_.push_back(part + 1);
        context_.console.Note("Block " + std::to_string(part + 1) + " of " + path_ + " cannot be read.");
    }
}

void OpenedFile::RequireAllRead() const {
    if (unreadable_.empty()) return;
    throw Failure(kExitFailed, Counted(unreadable_.size(), "block") + " of " + path_ + " could not be read");
}

void OpenedFile::Open(std::size_t part) {
    if (part != open_part_) Read(part);
}

}  // namespace certmgrctl
