// Transfer of CRLs from the addresses that certificates name.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

/// Fetches what the address names, within `timeout_seconds` in all: connecting, redirects and receiving included.
///
/// Only http, https, ldap and ldaps, at most three redirects, to http and https alone. Never more than the block's
/// crl_max_bytes. `data` is appended to; of a directory's answer it gets the first value whose attribute begins with the
/// letter c, as libcurl writes it: text, or base64 for bytes. `content_type` is replaced when the server names one.
/// `note`, if given, receives why nothing came, or how an HTTP server answered when not with 200. No lock is held.
/// RFC 4516, RFC 9110.
bool download_data_from_uri(const char* uri, std::string& data, std::string& content_type, unsigned int timeout_seconds,
                            std::string* note = nullptr);

namespace CM {

/// Completes an address that has no host with the default server ("scheme://host[:port]") of the same scheme. Returns
/// `uri` itself, or `work` with the completed one.
const std::string& cm_crl_tune_uri_source_addr_(const std::string& uri, const std::string& default_server,
                                                std::string& work);

/// The address as it may be shown: without user name and password, and with the escapes of asn_text_to_printable.
std::string PrintableUri(const std::string& uri);

/// Finds the value in the text that libcurl makes of an LDAP search, which comes in chunks that may end anywhere:
///
///     DN: cn=crl,dc=example
///     <tab>objectClass: cRLDistributionPoint
///     <tab>certificateRevocationList;binary:: MIIB...
///
/// The first value of the first attribute whose name begins with the letter c, in either case, is it, up to the end of
/// its line; everything after it is passed over.
class LdapValueFinder {
  public:
    /// Appends what the chunk holds of the value.
    void Take(std::string_view chunk, std::string& value);

  private:
    enum class State : std::uint8_t {
        kAttributeBegin,  // at the beginning of a line
        kAttributeEnd,  // to the end of a line that is not looked for
        kNameBegin,
        kName,
        kValueBegin,  // after the colon of a text
        kValueBeginBase64,  // after the second colon
        kValue,
        kDiscard,
    };
    bool Step(char c);

    State state_ = State::kAttributeBegin;
};

/// A socket that libcurl was given. libldap closes it as well, before libcurl does, and by then another thread of the
/// daemon may have got the descriptor for a file of its own: whether it is still this socket is asked each time.
class TransferSocket {
  public:
    bool Open(int family, int type, int protocol);
    /// As close(2); nothing when it is closed already.
    int Close();
    /// -1 before Open and after Close.
    int fd() const { return fd_; }
    std::uint64_t BytesReceived() const;

  private:
    bool IsStillOurs() const;

    int fd_ = -1;
    ino_t inode_ = 0;
};

}  // namespace CM
