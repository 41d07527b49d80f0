/*
 * The nvrhttp program: its arguments, its output, nvrhttp serve beside it.
 */
#ifndef TESTS_INTEGRATION_NVRHTTP_PROGRAM_H
#define TESTS_INTEGRATION_NVRHTTP_PROGRAM_H

#include <string>
#include <vector>

#include "tests/support/child_process.h"

namespace test
{

/* nvrhttp with these arguments. */
Program Nvrhttp(const std::vector<std::string> &arguments);

/* As Program::inChild: every bind fails from here on, as if all ports were taken. */
bool RefuseAllPorts();

/* A URL whose host no resolver is asked for: the first part of its name is too long. */
std::string UnresolvableUrl();

/* What follows a mark, up to the next comma or line end; empty without the mark. */
std::string After(const std::string &text, const std::string &mark);

/* The text with each run of blanks and line ends as one blank: where help texts are wrapped differs. */
std::string Folded(const std::string &text);

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
