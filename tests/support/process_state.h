/*
 * What the test's own process holds and uses: descriptors, threads, standard streams,
 * environment.
 */
#ifndef TESTS_SUPPORT_PROCESS_STATE_H
#define TESTS_SUPPORT_PROCESS_STATE_H

#include <cstddef>
#include <functional>
#include <set>
#include <string>

namespace test
{

/* No proxy of the machine sees, or answers, what goes to loopback. */
void ClearProxies();

std::set<int> OpenDescriptors();
size_t RunningThreads();
/* Threads that the kernel knows by this name, of which it keeps 15 characters. */
size_t ThreadsNamed(const std::string &name);

/* Allows at least so many descriptors; false if the system does not. */
bool AllowDescriptors(size_t count);

/* Standard input reads from this text from now on. */
void FeedStandardInput(const std::string &text);

/* Run the action and return what this process wrote to standard output, or standard error, meanwhile. */
std::string StandardOutputOf(const std::function<void()> &action);
std::string StandardErrorOf(const std::function<void()> &action);

} // namespace test

#endif
