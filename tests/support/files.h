/*
 * Files of a test: a folder that is removed with its owner, a file in memory in place of a
 * standard stream, whole files as texts.
 */
#ifndef TESTS_SUPPORT_FILES_H
#define TESTS_SUPPORT_FILES_H

#include <string>

namespace test
{

/* A fresh folder, removed at the end with all that it holds. */
class TemporaryFolder
{
  public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder &) = delete;
    TemporaryFolder &operator=(const TemporaryFolder &) = delete;
    const std::string &Path() const;

  private:
    std::string path;
};

/* A file without a name, opened at its begin. */
class MemoryFile
{
  public:
    explicit MemoryFile(const std::string &text = "");
    ~MemoryFile();
    MemoryFile(const MemoryFile &) = delete;
    MemoryFile &operator=(const MemoryFile &) = delete;
    int Descriptor() const;
    /* All that has been written to it. */
    std::string Text() const;

  private:
    int descriptor;
};

std::string ReadFile(const std::string &path);
void WriteFile(const std::string &path, const std::string &text);

} // namespace test

#endif
