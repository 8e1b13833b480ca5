// The GOST token by itself: logins, objects, damage, clients that nobody here wrote.
#include <fcntl.h>
#include <malloc.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <sys/file.h>
#include <sys/resource.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <thread>

#include "certmgr/certmgr.h"
#include "libcrypto/libcrypto.h"
#include "tests/gost/examples.h"
#include "tests/gost/module.h"
#include "tests/support/der.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"
#include "tests/support/wait.h"
#include "tests/tokens/fixture.h"

namespace gost_test {
namespace {

namespace fs = std::filesystem;
using Values = std::set<std::string>;

/// A token in slot 0 whose PINs are set.
class GostToken : public testing::Test {
  protected:
    GostToken() {
        ERR_clear_error();
        module_ = std::make_unique<Module>(GOST_TOKEN_PATH, directory());
        EXPECT_EQ(module_->InitToken(0, so_pin_), CKR_OK);
        const CK_SESSION_HANDLE session = module_->Open();
        EXPECT_EQ(module_->Login(session, so_pin_, CKU_SO), CKR_OK);
        EXPECT_EQ((*module_)->C_InitPIN(session, Bytes(pin_), pin_.size()), CKR_OK);
        EXPECT_EQ((*module_)->C_CloseSession(session), CKR_OK);
    }
    std::string directory() const { return (directory_ / "state").string(); }
    /// As another process sees the token.
    void Restart() {
        module_.reset();
        module_ = std::make_unique<Module>(GOST_TOKEN_PATH, directory());
    }
    CK_SESSION_HANDLE User() {
        const CK_SESSION_HANDLE session = module_->Open();
        EXPECT_EQ(module_->Login(session, pin_), CKR_OK);
        return session;
    }
    Values Shown(CK_SESSION_HANDLE session) {
        Values values;
        for (const CK_OBJECT_HANDLE object : module_->Find(session))
            values.insert(module_->Get(session, object, CKA_VALUE));
        return values;
    }

    test_support::TempDir directory_;
    std::string so_pin_ = token_test::RandomPin();
    std::string pin_ = token_test::RandomPin();
    std::unique_ptr<Module> module_;
};

TEST_F(GostToken, ObjectsOutliveTheProcessAndPrivateOnesNeedThePin) {
    CK_OBJECT_HANDLE object = 0;
    CK_SESSION_HANDLE session = User();
    EXPECT_EQ(module_->AddData(session, "a", "seen", false, object), CKR_OK);
    EXPECT_EQ(module_->AddData(session, "b", "hidden", true, object), CKR_OK);
    Restart();
    session = module_->Open();
    EXPECT_EQ(Shown(session), Values{"seen"});
    EXPECT_EQ(module_->Login(session, so_pin_), CKR_PIN_INCORRECT);
    EXPECT_EQ(module_->AddData(session, "c", "x", true, object), CKR_USER_NOT_LOGGED_IN);
    EXPECT_EQ(module_->Login(session, so_pin_, CKU_SO), CKR_OK);
    EXPECT_EQ(Shown(session), Values{"seen"}) << "the security officer does not see private objects";
    EXPECT_EQ((*module_)->C_Logout(session), CKR_OK);
    EXPECT_EQ(module_->Login(session, pin_), CKR_OK);
    EXPECT_EQ(Shown(session), (Values{"hidden", "seen"}));
    for (const auto& file : fs::recursive_directory_iterator(directory())) {
        if (!file.is_regular_file()) continue;
        std::ifstream in(file.path(), std::ios::binary);
        const std::string content{std::istreambuf_iterator<char>(in), {}};
        EXPECT_EQ(content.find("hidden"), std::string::npos);
    }
}

TEST_F(GostToken, NewPinsOpenTheSameObjects) {
    CK_OBJECT_HANDLE object = 0;
    CK_SESSION_HANDLE session = User();
    ASSERT_EQ(module_->AddData(session, "b", "hidden", true, object), CKR_OK);
    std::string next = token_test::RandomPin() + "1";
    EXPECT_EQ((*module_)->C_SetPIN(session, Bytes(so_pin_), 8, Bytes(next), 9), CKR_PIN_INCORRECT);
    EXPECT_EQ((*module_)->C_SetPIN(session, Bytes(pin_), 8, Bytes(next), 3), CKR_PIN_LEN_RANGE);
    EXPECT_EQ((*module_)->C_SetPIN(session, Bytes(pin_), 8, Bytes(next), 9), CKR_OK);
    Restart();
    session = module_->Open();
    EXPECT_EQ(module_->Login(session, pin_), CKR_PIN_INCORRECT);
    EXPECT_EQ(module_->Login(session, so_pin_, CKU_SO), CKR_OK);
    EXPECT_EQ((*module_)->C_InitPIN(session, Bytes(pin_), 8), CKR_OK) << "a forgotten PIN";
    EXPECT_EQ((*module_)->C_Logout(session), CKR_OK);
    EXPECT_EQ(module_->Login(session, next), CKR_PIN_INCORRECT);
    EXPECT_EQ(module_->Login(session, pin_), CKR_OK);
    EXPECT_EQ(Shown(session), Values{"hidden"});
}

TEST_F(GostToken, ANewTokenInTheSlotTakesTheOldOnesPlaceForEverybody) {
    CK_OBJECT_HANDLE object = 0;
    const CK_SESSION_HANDLE session = User();
    ASSERT_EQ(module_->AddData(session, "b", "old", true, object), CKR_OK);
    EXPECT_EQ(module_->InitToken(0, so_pin_), CKR_SESSION_EXISTS);
    const auto other_process = [&](const std::string& so_pin) {
        return test_support::Run({GOST_WRITER_PATH, GOST_TOKEN_PATH, directory(), so_pin, "new"}).exit_code;
    };
    EXPECT_NE(other_process(pin_), 0);
    EXPECT_EQ(Shown(session), Values{"old"});
    EXPECT_EQ(other_process(so_pin_), 0);
    CK_SESSION_INFO info{};
    EXPECT_EQ((*module_)->C_GetSessionInfo(session, &info), CKR_DEVICE_REMOVED);
    EXPECT_EQ((*module_)->C_GetSessionInfo(session, &info), CKR_SESSION_HANDLE_INVALID);
    EXPECT_TRUE(Shown(module_->Open()).empty());
}

TEST_F(GostToken, WrongCallsGetTheStandardsAnswers) {
    const CK_SESSION_HANDLE session = User();
    const CK_SESSION_HANDLE reader = module_->Open(0, 0);
    CK_OBJECT_HANDLE object = 0;
    CK_MECHANISM digest{CKM_GOSTR3411, nullptr, 0};
    CK_MECHANISM unknown{CKM_SHA256, nullptr, 0};
    CK_BYTE out[64];
    CK_ULONG size = 31;
    auto& m = *module_;
    EXPECT_EQ(m.AddData(reader, "x", "x", false, object), CKR_SESSION_READ_ONLY);
    EXPECT_EQ(m.Login(reader, pin_), CKR_USER_ALREADY_LOGGED_IN);
    EXPECT_EQ(m.Login(reader, so_pin_, CKU_SO), CKR_USER_ANOTHER_ALREADY_LOGGED_IN);
    EXPECT_EQ(m->C_SignInit(session, &digest, 4711), CKR_MECHANISM_INVALID);
    EXPECT_EQ(m->C_DigestInit(session, &unknown), CKR_MECHANISM_INVALID);
    EXPECT_EQ(m->C_Digest(session, out, 1, out, &size), CKR_OPERATION_NOT_INITIALIZED);
    ASSERT_EQ(m->C_DigestInit(session, &digest), CKR_OK);
    EXPECT_EQ(m->C_DigestInit(session, &digest), CKR_OPERATION_ACTIVE);
    EXPECT_EQ(m->C_Digest(session, out, 1, out, &size), CKR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 32U);
    EXPECT_EQ(m->C_Digest(session, out, 1, out, &size), CKR_OK) << "the operation goes on after a short buffer";
    // CKA_TRUSTED is for the security officer.
    Template certificate{{CKA_CLASS, Number(CKO_CERTIFICATE)}, {CKA_CERTIFICATE_TYPE, Number(CKC_X_509)}};
    EXPECT_EQ(m.Create(session, certificate, object), CKR_TEMPLATE_INCOMPLETE);
    certificate.insert(certificate.end(), {{CKA_VALUE, "certificate"}, {CKA_TRUSTED, Flag(true)}});
    EXPECT_EQ(m.Create(session, certificate, object), CKR_ATTRIBUTE_READ_ONLY);
    // A logout ends what was begun with a private key.
    CK_MECHANISM sign{CKM_GOSTR3410, nullptr, 0};
    EXPECT_EQ(m->C_SignInit(session, &sign, m.GeneratePair(session, false)[1]), CKR_OK);
    EXPECT_EQ(m->C_Logout(session), CKR_OK);
    EXPECT_EQ(m.Login(session, pin_), CKR_OK);
    size = sizeof out;
    EXPECT_EQ(m->C_Sign(session, out, 32, out, &size), CKR_USER_NOT_LOGGED_IN);
    certificate.back().first = CKA_MODULUS;
    EXPECT_EQ(m.Create(session, certificate, object), CKR_ATTRIBUTE_TYPE_INVALID);
}

TEST_F(GostToken, ADirectoryThatOthersCanReadIsRefused) {
    fs::permissions(directory(), fs::perms::group_read, fs::perm_options::add);
    module_.reset();
    const Module refused(GOST_TOKEN_PATH, directory());
    EXPECT_EQ(refused.result, CKR_DEVICE_ERROR);
}

/// InitToken waits for who writes into the slot's folder, and what a killed one left goes at the next start.
TEST_F(GostToken, ANewTokenLeavesNothingOfTheOldOne) {
    const fs::path slot = fs::path(directory()) / "slot-0";
    const int folder = open(slot.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(folder, LOCK_EX), 0);
    test_support::Process other({GOST_WRITER_PATH, GOST_TOKEN_PATH, directory(), so_pin_, "new"});
    const std::string waits = "-> FLOCK  ADVISORY  WRITE " + std::to_string(other.pid()) + " ";
    bool waited = false;
    for (const auto end = std::chrono::steady_clock::now() + test_support::kWaitLimit;
         !waited && std::chrono::steady_clock::now() < end; std::this_thread::yield()) {
        std::ifstream locks("/proc/locks");
        waited = std::string{std::istreambuf_iterator<char>(locks), {}}.find(waits) != std::string::npos;
    }
    EXPECT_TRUE(waited);
    close(folder);
    EXPECT_EQ(other.Wait().exit_code, 0);
    EXPECT_EQ(std::distance(fs::directory_iterator(directory()), {}), 1);
    fs::copy(slot, fs::path(directory()) / ".new-0123");
    Restart();
    EXPECT_EQ(std::distance(fs::directory_iterator(directory()), {}), 1);
}

TEST_F(GostToken, AShortageIsNoDamage) {
    CK_OBJECT_HANDLE object = 0;
    const CK_SESSION_HANDLE session = User();
    ASSERT_EQ(module_->AddData(session, "b", "hidden", true, object), CKR_OK);
    for (const auto& file : fs::directory_iterator(fs::path(directory()) / "slot-0"))
        fs::last_write_time(file.path(), fs::file_time_type::clock::now() - std::chrono::hours(1));
    CK_SESSION_INFO info{};
    // The first exception of a kind is looked at by the sanitizers, with descriptors of their own.
    EXPECT_EQ((*module_)->C_GetSessionInfo(session + 1, &info), CKR_SESSION_HANDLE_INVALID);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ((*module_)->C_GetSessionInfo(session, &info), CKR_HOST_MEMORY);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ((*module_)->C_GetSessionInfo(session, &info), CKR_OK);
    EXPECT_EQ(info.state, CKS_RW_USER_FUNCTIONS);
    EXPECT_EQ(Shown(session), Values{"hidden"});
}

/// Each file of the token is cut and has bits turned: the token never takes what was damaged, and everything else stays.
TEST_F(GostToken, DamagedFilesAreNotTakenAndHarmNothingElse) {
    CK_OBJECT_HANDLE object = 0;
    CK_SESSION_HANDLE session = User();
    const Values all{"hidden", "seen"};
    ASSERT_EQ(module_->AddData(session, "a", "seen", false, object), CKR_OK);
    ASSERT_EQ(module_->AddData(session, "b", "hidden", true, object), CKR_OK);
    std::vector<fs::path> files;
    for (const auto& file : fs::directory_iterator(fs::path(directory()) / "slot-0")) files.push_back(file.path());
    ASSERT_EQ(files.size(), 3U);
    for (const fs::path& file : files) {
        std::ifstream in(file, std::ios::binary);
        const std::string good{std::istreambuf_iterator<char>(in), {}};
        const auto put = [&](const std::string& content) {
            std::ofstream(file.string() + ".next", std::ios::binary) << content;
            fs::rename(file.string() + ".next", file);
        };
        for (std::size_t at = 0; at < good.size(); ++at) {
            std::string flipped = good;
            flipped[at] = static_cast<char>(flipped[at] ^ (1 << at % 8));
            for (const std::string& bad : {flipped, good.substr(0, at)}) {
                put(bad);
                CK_TOKEN_INFO info{};
                if (file.filename() == "token") {
                    const bool half = bad.size() >= good.size() / 2;  // its content is there twice
                    EXPECT_EQ((*module_)->C_GetTokenInfo(0, &info), half ? CKR_OK : CKR_TOKEN_NOT_RECOGNIZED) << at;
                } else {
                    const Values left = Shown(session);
                    EXPECT_TRUE(left.size() == 1 && all.contains(*left.begin())) << file << " " << at;
                }
            }
        }
        put(good);
        if (file.filename() == "token") session = User();
        EXPECT_EQ(Shown(session), all);
    }
    // A token that nobody can prove to own gives way to a new one, and is not lost.
    fs::remove(fs::path(directory()) / "slot-0/token");
    EXPECT_EQ((*module_)->C_CloseAllSessions(0), CKR_OK);
    EXPECT_EQ(module_->InitToken(0, so_pin_), CKR_OK);
    EXPECT_TRUE(Shown(module_->Open()).empty());
    EXPECT_EQ(std::distance(fs::recursive_directory_iterator(directory()), {}), 5) << "two folders, three files";
}

TEST_F(GostToken, AKilledProcessLeavesEveryObjectReadable) {
    for (unsigned round = 0; round < 3; ++round) {
        test_support::Process writer({GOST_WRITER_PATH, GOST_TOKEN_PATH, directory(), pin_});
        const std::string last = "wrote " + std::to_string(20 + 17 * round);
        ASSERT_TRUE(writer.WaitForOutput(last)) << writer.Err();
        writer.Kill();
        const std::string out = writer.Wait().out;
        const auto written = static_cast<std::size_t>(std::count(out.begin(), out.end(), '\n'));
        Restart();
        const CK_SESSION_HANDLE session = User();
        std::size_t whole = 0;
        std::size_t begun = 0;
        std::map<std::string, int> keys;  // public ones, private ones
        for (const CK_OBJECT_HANDLE object : module_->Find(session)) {
            if (const std::string kind = module_->Get(session, object, CKA_CLASS); kind[0] != CKO_DATA) {
                ++keys[kind];
                continue;
            }
            const std::string label = module_->Get(session, object, CKA_LABEL);
            const std::string value = module_->Get(session, object, CKA_VALUE);
            std::string expected;
            for (int i = 0; i < 1000; ++i) expected += label;
            ++(value == expected ? whole : begun);
            EXPECT_TRUE(value == expected || value == "first" || label == "passing") << label;
            EXPECT_EQ((*module_)->C_DestroyObject(session, object), CKR_OK);
        }
        EXPECT_GE(whole, written);
        EXPECT_LE(begun, 1U) << "at most the one that was being written";
        EXPECT_TRUE(keys.size() == 2 && keys.begin()->second == keys.rbegin()->second) << "half a pair";
    }
}

/// What is left by a process that is killed while it writes a pair: before it counts as written, and after.
TEST_F(GostToken, HalfAPairIsNeverLeft) {
    const fs::path slot = fs::path(directory()) / "slot-0";
    // A folder, the halves in it, and the keys that are there afterwards.
    for (const auto& [name, halves, keys] :
         {std::tuple(".new-0", 1, 0U), {".new-1", 2, 0U}, {".set-0", 2, 2U}, {".set-1", 1, 2U}, {".set-2", 0, 2U}}) {
        SCOPED_TRACE(name);
        ASSERT_NE(module_->GeneratePair(User(), true)[1], CK_INVALID_HANDLE);
        module_.reset();
        const std::vector<fs::path> files{fs::directory_iterator(slot), {}};
        fs::create_directory(slot / name);
        int half = 0;
        for (const fs::path& file : files) {
            if (file.extension() != ".object") continue;
            if (half++ < halves)
                fs::rename(file, slot / name / file.filename());
            else if (keys == 0)
                fs::remove(file);
        }
        Restart();
        const CK_SESSION_HANDLE session = User();
        const auto found = module_->Find(session);
        EXPECT_EQ(found.size(), keys);
        for (const CK_OBJECT_HANDLE key : found) EXPECT_EQ((*module_)->C_DestroyObject(session, key), CKR_OK);
        EXPECT_EQ((*module_)->C_CloseAllSessions(0), CKR_OK);
        EXPECT_EQ(std::distance(fs::directory_iterator(slot), {}), 1);
    }
}

/// RFC 5832 and RFC 7091, 7.1 (the same numbers), RFC 7091, 7.2: the published public keys, hashes and signatures.
TEST_F(GostToken, PublishedExamplesPinTheByteOrders) {
    const std::tuple<CK_KEY_TYPE, CK_MECHANISM_TYPE, const char*, const char*, const Example&> cases[] = {
        {CKK_GOSTR3410, CKM_GOSTR3410, "1.2.643.2.2.35.0", "1.2.643.2.2.30.1", kExample256},
        {CKK_GOSTR3410, CKM_GOSTR3410, "1.2.643.2.2.35.0", "1.2.643.7.1.1.2.2", kExample256},
        {CKK_GOSTR3410_512, CKM_GOSTR3410_512, "1.2.643.7.1.2.1.2.0", "1.2.643.7.1.1.2.3", kExample512},
    };
    const CK_SESSION_HANDLE session = module_->Open();
    for (const auto& [type, sign, set, digest_set, example] : cases) {
        SCOPED_TRACE(digest_set);
        Template values{{CKA_CLASS, Number(CKO_PUBLIC_KEY)},
                        {CKA_KEY_TYPE, Number(type)},
                        {CKA_GOSTR3411_PARAMS, der::Oid(digest_set)},
                        {CKA_GOSTR3410_PARAMS, der::Oid(set)},
                        {CKA_VALUE, Reversed(FromHex(example.x)) + Reversed(FromHex(example.y))}};
        CK_OBJECT_HANDLE key = 0;
        ASSERT_EQ(module_->Create(session, values, key), CKR_OK);
        CK_MECHANISM mechanism{sign, nullptr, 0};
        const auto verify = [&](const std::string& digest, const std::string& signature) {
            EXPECT_EQ((*module_)->C_VerifyInit(session, &mechanism, key), CKR_OK);
            return (*module_)->C_Verify(session, Bytes(digest), digest.size(), Bytes(signature), signature.size());
        };
        const std::string digest = Reversed(FromHex(example.e));
        const std::string signature = FromHex(example.s) + FromHex(example.r);
        EXPECT_EQ(verify(digest, signature), CKR_OK);
        EXPECT_EQ(verify(digest, Reversed(signature)), CKR_SIGNATURE_INVALID);
        EXPECT_EQ(verify(digest, signature.substr(1)), CKR_SIGNATURE_LEN_RANGE);
        const auto turn = [](std::string& value, int bits) { value.back() = static_cast<char>(value.back() ^ bits); };
        turn(values[4].second, 1);
        EXPECT_EQ(module_->Create(session, values, key), CKR_ATTRIBUTE_VALUE_INVALID) << "not on the curve";
        turn(values[3].second, 64);
        EXPECT_EQ(module_->Create(session, values, key), CKR_DOMAIN_PARAMS_INVALID);
    }
}

/// Signs on the token as a program that loads it, and lets it go, does.
void UseToken(const std::string& directory, const std::string& pin) {
    const Module module(GOST_TOKEN_PATH, directory);
    const CK_SESSION_HANDLE session = module.Open();
    EXPECT_EQ(module.Login(session, pin), CKR_OK);
    const auto keys = module.Find(session);
    ASSERT_EQ(keys.size(), 2U);
    CK_MECHANISM mechanism{CKM_GOSTR3410_WITH_GOSTR3411_2012_256, nullptr, 0};
    std::string signature(64, '\0');
    CK_ULONG size = signature.size();
    const bool first = module->C_SignInit(session, &mechanism, keys[0]) == CKR_OK;
    EXPECT_TRUE(first || module->C_SignInit(session, &mechanism, keys[1]) == CKR_OK);
    EXPECT_EQ(module->C_Sign(session, Bytes(pin), 1, Bytes(signature), &size), CKR_OK);
}

/// In a process that starts and stops the certificate engine. libcrypto keeps the engine of the keys itself.
TEST_F(GostToken, StartsAndStopsLeakNothing) {
    ASSERT_NE(module_->GeneratePair(User(), true)[1], CK_INVALID_HANDLE);
    module_.reset();
    // The loader itself keeps some bytes of each load: the module stays.
    void* const loaded = dlopen(GOST_TOKEN_PATH, RTLD_NOW);
    std::size_t before = 0;
    for (int i = 0; i < 13; ++i) {
        if (i == 3) before = mallinfo2().uordblks;
        UseToken(directory(), pin_);
    }
    EXPECT_LT(mallinfo2().uordblks, before + 2000);
    // The leak sanitizer watches this.
    for (int i = 0; i < 2; ++i) {
        CM::CertEngine_Init();
        UseToken(directory(), pin_);
        CM::CertEngine_Finit();
    }
    dlclose(loaded);
}

/// The host's own use of libcrypto is as it was: no error is left behind, no default is the engine's.
TEST_F(GostToken, TheProcessKeepsItsDefaults) {
    EXPECT_EQ(ERR_peek_error(), 0U) << "of the first load";
    Restart();
    EXPECT_EQ(module_->InitToken(7, pin_), CKR_SLOT_ID_INVALID);
    EXPECT_EQ(ERR_peek_error(), 0U);
    module_.reset();
    const libcrypto::KeyContextPtr context(EVP_PKEY_CTX_new_id(NID_id_GostR3410_2001, nullptr));
    const libcrypto::KeyPtr key(EVP_PKEY_new());
    EXPECT_EQ(EVP_PKEY_set_type(key.get(), NID_id_GostR3410_2001), 0) << "the way to keys was taken back";
    ERR_clear_error();
}

/// OpenSC's tool makes, lists and uses keys; p11-kit's server of modules shows them in the same way to GnuTLS's.
TEST_F(GostToken, ToolsOfOthersWork) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "programs without a sanitizer cannot load a module with one";
#endif
    module_.reset();
    const std::string data = directory_ / "data";
    const std::string signature = directory_ / "signature";
    std::ofstream(data) << "what is signed";
    const auto tool = [&](std::vector<std::string> words) {
        words.insert(words.begin(),
                     {"pkcs11-tool", "--module", GOST_TOKEN_PATH, "--slot", "0", "--login", "--pin", "env:PIN"});
        const auto result = test_support::Run(words, {{"CERTMGR_GOST_DIRECTORY", directory()}, {"PIN", pin_}});
        EXPECT_EQ(result.exit_code, 0) << words[8] << " " << words[9] << "\n" << result.out << result.err;
        return result.out;
    };
    for (const auto& [id, type, mechanism] :
         std::vector<std::array<std::string, 3>>{{"01", "GOSTR3410:A", "GOSTR3410-WITH-GOSTR3411"},
                                                 {"02", "GOSTR3410-2012-256:A", "GOSTR3410-WITH-GOSTR3411-12-256"},
                                                 {"03", "GOSTR3410-2012-512:A", "GOSTR3410-WITH-GOSTR3411-12-512"}}) {
        tool({"--keypairgen", "--key-type", type, "--id", id, "--label", id});
        tool({"--sign", "-m", mechanism, "--id", id, "-i", data, "-o", signature});
        const std::vector<std::string> verify{"--verify", "-m", mechanism,          "--id",   id,
                                              "-i",       data, "--signature-file", signature};
        const auto verified = [&] { return tool(verify).find("Signature is valid") != std::string::npos; };
        EXPECT_TRUE(verified());
        std::ofstream(data, std::ios::app) << "more";
        EXPECT_FALSE(verified());
    }
    tool({"--write-object", data, "--type", "data", "--label", "file", "--private"});
    tool({"--delete-object", "--type", "privkey", "--id", "02"});
    const std::string listed = tool({"--list-objects"});
    EXPECT_NE(listed.find("Private Key Object; GOSTR3410-2012-512"), std::string::npos) << listed;
    EXPECT_NE(listed.find("label:          'file'"), std::string::npos) << listed;
    EXPECT_EQ(listed.find("Private Key Object; GOSTR3410-2012-256"), std::string::npos);
    const auto tokens = test_support::Run({"p11tool", "--provider", GOST_TOKEN_PATH, "--list-tokens"},
                                          {{"CERTMGR_GOST_DIRECTORY", directory()}});
    EXPECT_NE(tokens.out.find("Label: gost"), std::string::npos) << tokens.err;
}

TEST_F(GostToken, ThreadsSignAndListAtOnce) {
    User();
    std::vector<std::thread> threads;
    std::atomic<int> good = 0;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            const CK_SESSION_HANDLE session = module_->Open();
            const auto pair = module_->GeneratePair(session, false);
            CK_MECHANISM sign{CKM_GOSTR3410, nullptr, 0};
            for (int n = 0; n < 20; ++n) {
                std::string digest(32, static_cast<char>(n));
                std::string signature(64, '\0');
                CK_ULONG size = signature.size();
                const bool done = (*module_)->C_SignInit(session, &sign, pair[1]) == CKR_OK &&
                                  (*module_)->C_Sign(session, Bytes(digest), 32, Bytes(signature), &size) == CKR_OK &&
                                  (*module_)->C_VerifyInit(session, &sign, pair[0]) == CKR_OK &&
                                  (*module_)->C_Verify(session, Bytes(digest), 32, Bytes(signature), 64) == CKR_OK;
                good += done && module_->Find(session).size() >= 2 ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(good, 80);
}

/// What has ended goes away when its last call returns: that takes nothing from what has begun.
TEST_F(GostToken, ItEndsAndBeginsAgainWhileThreadsWork) {
    std::atomic<bool> over = false;
    std::thread worker([&] {
        while (!over) module_->GeneratePair(module_->Open(), false);
    });
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ((*module_)->C_Finalize(nullptr), CKR_OK);
        module_->Initialize(directory());
        EXPECT_NE(module_->GeneratePair(User(), false)[1], CK_INVALID_HANDLE) << i;
    }
    over = true;
    worker.join();
}

}  // namespace
}  // namespace gost_test
