/* How the fakes and the hooks keep their records. */
#ifndef TESTS_SUPPORT_RECORDS_H
#define TESTS_SUPPORT_RECORDS_H

#include <mutex>
#include <string>

namespace test
{

using Guard = std::lock_guard<std::mutex>;

/* The one record of its type. Never destroyed: the library's threads may outlive main. */
template <typename T> T &Lasting()
{
    static T *record = new T;
    return *record;
}

} // namespace test

namespace fake
{

/* Notes a wrong use, see Violations. */
void AddViolation(const std::string &text);

inline std::string OrEmpty(const char *text)
{
    return text == nullptr ? std::string() : std::string(text);
}

} // namespace fake

#endif
