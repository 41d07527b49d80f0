/*
 * For programs that put a function of their own in the place of a library's.
 */
#ifndef TESTS_SUPPORT_NEXT_H
#define TESTS_SUPPORT_NEXT_H

#include <dlfcn.h>

namespace test
{

/* The function that this program's own of the same name hides. */
template <typename Function> Function *Next(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace test

#endif
