/*
 * The nvrhttp program: its arguments, its output, nvrhttp serve beside it.
 */
#ifndef TESTS_INTEGRATION_NVRHTTP_PROGRAM_H
#define TESTS_INTEGRATION_NVRHTTP_PROGRAM_H

#include <curl/curl.h>

#include <string>
#include <vector>

#include "integration_fixture.h"
#include "tests/support/child_process.h"

namespace test
{

/* nvrhttp, or the demo, with these arguments. */
Program Nvrhttp(const std::vector<std::string> &arguments, const std::vector<std::string> &more = {});
Program Demo(const std::vector<std::string> &arguments);

/* The same program with its standard error in this file. */
Program WithErrors(Program program, const MemoryFile &errors);

/* As Program::inChild: every bind fails from here on, as if all ports were taken. */
bool RefuseAllPorts();

/* A URL whose host no resolver is asked for: the first part of its name is too long. */
std::string UnresolvableUrl();

/* A failure in libcurl's words, which change with its version. */
std::string LibcurlReason(CURLcode code);

/* What follows a mark, up to the next comma or line end; empty without the mark. */
std::string After(const std::string &text, const std::string &mark);

/* The text with each run of blanks and line ends as one blank: where help texts are wrapped differs. */
std::string Folded(const std::string &text);

/* nvrhttp post in the mode of the case. */
class PostInEachMode : public IntegrationTest, public testing::WithParamInterface<std::string>
{
  protected:
    Program Post(const std::string &url, const std::vector<std::string> &more = {}) const
    {
        return Nvrhttp({"post", url, "--mode", GetParam()}, more);
    }

    bool Is(const std::string &mode) const
    {
        return GetParam() == mode;
    }
};

/* nvrhttp serve for as long as the object lives; it has to end with status 0. */
class ServeProcess
{
  public:
    explicit ServeProcess(const std::vector<std::string> &options = {});
    ~ServeProcess();

    /* A slash at the begin is the URL's own. */
    std::string Url(const std::string &path = "/") const;

  private:
    ChildProcess process;
    std::string origin;
};

} // namespace test

#endif
