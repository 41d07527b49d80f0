/*
 * Where the files of the host's debug log are, and which ones it takes.
 *
 * The folder is NVRHTTPCURL_LOG_DIR; else nvrhttpcurl/ in XDG_STATE_HOME or in ~/.local/state;
 * else, where the user has no home, nvrhttpcurl-UID in TMPDIR or /tmp. Missing folders are
 * created for the user alone. The last two are refused unless the folder is the user's own, is no
 * link and cannot be written by others.
 *
 * A file is taken if it is a regular file of this user, not reached through a symbolic link and
 * without a second name: a line must never end up in a file that somebody planted.
 */
#ifndef PLATFORM_HOST_DEBUGLOG_PLACE_H
#define PLATFORM_HOST_DEBUGLOG_PLACE_H

#include <sys/stat.h>

#include <string>

struct TLogPlace {
    std::string strFolder; /* absolute, so that a change of the working folder does not move the log */
    bool bChosen = false;  /* the user named it; otherwise it has to be the user's own */
};

/* Why there is no file: errno, or one of these. */
enum {
    LOG_FILE_REPLACED = -1, /* the open file is no longer the one at the path */
    LOG_FILE_NOT_REGULAR = -2,
    LOG_FILE_NOT_OWN = -3,
    LOG_FILE_SECOND_NAME = -4,
    LOG_FOLDER_NOT_OWN = -5
};

TLogPlace FindLogPlace();

/* The path of a module's file; szEnding is ".log" or ".1.log". */
std::string LogFilePath(const TLogPlace &tPlace, const std::string &strName, const char *szEnding);

/* Opens the file for appending, creates it if it is missing; never blocks. 0 or why not. */
int OpenLogFile(const TLogPlace &tPlace, const std::string &strPath, int &rnFile, struct stat &rtFile);

std::string LogProblemText(int nProblem);

#endif
