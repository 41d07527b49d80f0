#include "tests/support/files.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace test
{

TemporaryFolder::TemporaryFolder() : path((std::filesystem::temp_directory_path() / "nvrhttpcurl-test-XXXXXX").string())
{
    if (mkdtemp(path.data()) == nullptr) {
        ADD_FAILURE() << "no temporary folder";
        path.clear();
    }
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    if (!path.empty()) {
        std::filesystem::remove_all(path, ignored);
    }
}

const std::string &TemporaryFolder::Path() const
{
    return path;
}

MemoryFile::MemoryFile(const std::string &text) : descriptor(memfd_create("test", MFD_CLOEXEC))
{
    if (write(descriptor, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        lseek(descriptor, 0, SEEK_SET) != 0) {
        ADD_FAILURE() << "no file in memory";
    }
}

MemoryFile::~MemoryFile()
{
    close(descriptor);
}

int MemoryFile::Descriptor() const
{
    return descriptor;
}

std::string MemoryFile::Text() const
{
    return ReadFile("/proc/self/fd/" + std::to_string(descriptor));
}

std::string ReadFile(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void WriteFile(const std::string &path, const std::string &text)
{
    std::ofstream file(path, std::ios::binary);
    file << text;
    file.close();
    EXPECT_TRUE(file.good()) << path;
}

} // namespace test
