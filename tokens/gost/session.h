// A session: its view of a token, and what was started in it and not ended.
#pragma once

#include <deque>
#include <mutex>
#include <optional>

#include "tokens/gost/mechanisms.h"
#include "tokens/gost/token.h"

namespace gost_token {

/// Where a function puts its output, as C functions take it.
struct Output {
    CK_BYTE* bytes;
    CK_ULONG* length;

    /// Says how long the output is. False when that was all the caller wanted; fails with CKR_BUFFER_TOO_SMALL.
    bool HasRoom(std::size_t size) const;
    void Put(std::string_view content) const;
};

/// A signature, a verification or a digest in progress.
class Operation {
  public:
    Operation(const Engine& engine, const CK_MECHANISM* mechanism, CK_FLAGS use);

    /// The key that signs (CKF_SIGN) or verifies (CKF_VERIFY). Fails with what is wrong with the object. `logouts`: those
    /// of its token before the object was found.
    void UseKey(const Engine& engine, const Attributes& object, CK_FLAGS use, unsigned long logouts);
    /// Whether the login that its key needs has ended.
    bool IsOver(Token& token) const { return logouts_ && *logouts_ != token.Logouts(); }
    void Update(std::string_view data);
    /// The digest: of what was given, or what was given itself.
    std::string Finish(std::string_view data);
    const Key& key() const { return *key_; }
    std::size_t output_bytes() const;

  private:
    const Mechanism* mechanism_;
    std::optional<Hash> hash_;
    KeyPtr key_;
    std::optional<unsigned long> logouts_;  // for a private object
};

/// Calls on one session take turns; sessions do not wait for each other.
class Session {
  public:
    Session(const Engine& engine, TokenPtr token, CK_SESSION_HANDLE handle, bool read_write);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    Token& token() const { return *token_; }
    const SessionView& view() const { return view_; }
    bool IsOver() const { return !token_->IsStill(serial_); }
    void Describe(CK_SESSION_INFO& info) const;

    CK_OBJECT_HANDLE CreateObject(const Template& wanted);
    void GenerateKeyPair(const CK_MECHANISM* mechanism, const Template& public_key, const Template& private_key,
                         CK_OBJECT_HANDLE& public_handle, CK_OBJECT_HANDLE& private_handle);

    void StartFind(const Template& wanted);
    CK_ULONG Find(CK_OBJECT_HANDLE* handles, CK_ULONG most);
    void EndFind();

    void StartDigest(const CK_MECHANISM* mechanism);
    void UpdateDigest(std::string_view data);
    void EndDigest(std::string_view data, const Output& output);

    void StartSign(const CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key);
    void UpdateSign(std::string_view data);
    void EndSign(std::string_view data, const Output& output);

    void StartVerify(const CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key);
    void UpdateVerify(std::string_view data);
    void EndVerify(std::string_view data, std::string_view signature);

  private:
    using Running = std::optional<Operation>;
    Operation& Started(Running& operation);
    void StartWithKey(Running& operation, const CK_MECHANISM* mechanism, CK_FLAGS use, CK_OBJECT_HANDLE key);
    void Update(Running& operation, std::string_view data);

    const Engine& engine_;
    const TokenPtr token_;
    const SessionView view_;
    const std::string serial_;

    std::mutex mutex_;
    // Guarded by mutex_.
    std::optional<std::deque<CK_OBJECT_HANDLE>> found_;
    Running digest_;
    Running sign_;
    Running verify_;
};

using SessionPtr = std::shared_ptr<Session>;

}  // namespace gost_token
