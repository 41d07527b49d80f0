/*
 * The command line of "nvrhttp post".
 */
#ifndef TOOLS_NVRHTTP_POST_OPTIONS_H
#define TOOLS_NVRHTTP_POST_OPTIONS_H

#include <cstddef>
#include <cstdint>
#include <string>

#include <CLI/CLI.hpp>

#include "tools/post/post_run.h"

/* The command line as it was given. */
struct TPostOptions {
    TPostJob tJob;
    std::string strData;
    std::string strSource;
    std::string strMode = "client";
    std::string strMethod = "post";
    uint32_t dwMaxData = 64U << 20;
    bool bQuiet = false; /* answers are not written */
    bool bLog = false;
    CLI::Option *ptData = nullptr;
    CLI::Option *ptVerify = nullptr;
    CLI::Option *ptMaxAnswer = nullptr;
};

/* Registers all options; tOptions must live until the command line has been run. */
void AddPostOptions(CLI::App &tPost, TPostOptions &tOptions);

/* The longest answer where --max-answer is not given, within its range: the data may come back, too. */
uint32_t DefaultMaxAnswer(uint32_t dwCount, size_t uDataLen);

/*
 * What is to be run: reads the data, and asks for a password that is missing. Throws
 * CLI::ValidationError where that fails, and for what the mode would silently leave undone.
 */
TPostJob MakePostJob(const TPostOptions &tOptions);

#endif
