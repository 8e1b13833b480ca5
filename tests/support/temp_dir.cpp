#include "tests/support/temp_dir.h"

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace test_support {

TempDir::TempDir() {
    std::string name = (std::filesystem::temp_directory_path() / "certmgr-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::system_error(errno, std::generic_category(), name);
    path_ = name;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void TempDir::Write(const std::string& name, const std::string& content) const {
    const std::string staged = path_ / (name + ".new");
    create_directories((path_ / name).parent_path());
    std::ofstream file(staged, std::ios::binary);
    file << content;
    if (!file.flush() || chmod(staged.c_str(), S_IRUSR | S_IWUSR) != 0)
        throw std::runtime_error("cannot write " + name);
    rename(staged, path_ / name);
}

}  // namespace test_support
