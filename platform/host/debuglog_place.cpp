#include "debuglog_place.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "debuglog_host.h"

namespace
{

enum { FILE_MODE = 0600, FOLDER_MODE = 0700 };

/* Null if it is not set or empty, and in a program that runs with more rights than its caller. */
const char *Variable(const char *szName)
{
    const char *szValue = secure_getenv(szName);
    return szValue != nullptr && szValue[0] != '\0' ? szValue : nullptr;
}

std::string Absolute(const char *szFolder)
{
    std::error_code tError;
    const std::filesystem::path tAbsolute = std::filesystem::absolute(szFolder, tError);
    return tError ? szFolder : tAbsolute.string();
}

/* With sudo, HOME may still be another user's. */
bool IsOwnFolder(const char *szFolder)
{
    struct stat tFolder;
    return stat(szFolder, &tFolder) == 0 && S_ISDIR(tFolder.st_mode) && tFolder.st_uid == geteuid();
}

/* Empty if the user has none. */
std::string StateFolder()
{
    const char *szState = Variable("XDG_STATE_HOME");
    if (szState != nullptr && szState[0] == '/') {
        return szState;
    }
    const char *szHome = Variable("HOME");
    if (szHome != nullptr && szHome[0] == '/' && IsOwnFolder(szHome)) {
        return std::string(szHome) + "/.local/state";
    }
    return std::string();
}

/* 0, or why the first folder that is missing could not be created. */
int MakeFolders(const std::string &strFolder)
{
    size_t uEnd = 0;
    while (uEnd != std::string::npos) {
        uEnd = strFolder.find('/', uEnd + 1);
        if (mkdir(strFolder.substr(0, uEnd).c_str(), FOLDER_MODE) != 0 && errno != EEXIST) {
            return errno;
        }
    }
    return 0;
}

int CheckDefaultFolder(const std::string &strFolder)
{
    struct stat tFolder;
    if (lstat(strFolder.c_str(), &tFolder) != 0) {
        return errno;
    }
    const bool bOwn = S_ISDIR(tFolder.st_mode) && tFolder.st_uid == geteuid();
    return bOwn && (tFolder.st_mode & (S_IWGRP | S_IWOTH)) == 0 ? 0 : LOG_FOLDER_NOT_OWN;
}

int PrepareFolder(const TLogPlace &tPlace)
{
    const int nProblem = MakeFolders(tPlace.strFolder);
    return nProblem == 0 && !tPlace.bChosen ? CheckDefaultFolder(tPlace.strFolder) : nProblem;
}

/* Asks the descriptor: what is at the path may have changed since. */
int CheckFile(int nFile, struct stat &rtFile)
{
    if (fstat(nFile, &rtFile) != 0) {
        return errno;
    }
    if (!S_ISREG(rtFile.st_mode)) {
        return LOG_FILE_NOT_REGULAR;
    }
    if (rtFile.st_uid != geteuid()) {
        return LOG_FILE_NOT_OWN;
    }
    return rtFile.st_nlink > 1 ? LOG_FILE_SECOND_NAME : 0;
}

} // namespace

TLogPlace FindLogPlace()
{
    const char *szChosen = Variable("NVRHTTPCURL_LOG_DIR");
    if (szChosen != nullptr) {
        return {Absolute(szChosen), true};
    }
    const std::string strState = StateFolder();
    if (!strState.empty()) {
        return {strState + "/nvrhttpcurl", false};
    }
    const char *szTemporary = Variable("TMPDIR");
    const std::string strTemporary = Absolute(szTemporary != nullptr ? szTemporary : "/tmp");
    return {strTemporary + "/nvrhttpcurl-" + std::to_string(geteuid()), false};
}

std::string LogFilePath(const TLogPlace &tPlace, const std::string &strName, const char *szEnding)
{
    std::string strFile = strName + szEnding;
    std::replace(strFile.begin(), strFile.end(), '/', '_'); /* the file stays in the folder */
    return tPlace.strFolder + "/" + strFile;
}

int OpenLogFile(const TLogPlace &tPlace, const std::string &strPath, int &rnFile, struct stat &rtFile)
{
    int nProblem = PrepareFolder(tPlace);
    if (nProblem != 0) {
        return nProblem;
    }
    /* O_NONBLOCK: a FIFO without a reader fails instead of waiting for one. */
    const int nFlags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const int nFile = open(strPath.c_str(), nFlags, FILE_MODE);
    if (nFile < 0) {
        return errno;
    }
    nProblem = CheckFile(nFile, rtFile);
    if (nProblem != 0) {
        close(nFile);
        return nProblem;
    }
    rnFile = nFile;
    return 0;
}

std::string LogProblemText(int nProblem)
{
    switch (nProblem) {
    case LOG_FILE_REPLACED:
        return "it is replaced again and again";
    case ELOOP:
        return "a symbolic link is refused";
    case ENXIO: /* a FIFO without a reader, a socket */
    case LOG_FILE_NOT_REGULAR:
        return "not a regular file";
    case LOG_FILE_NOT_OWN:
        return "another user's file is refused";
    case LOG_FILE_SECOND_NAME:
        return "a file with a second name (hard link) is refused";
    case LOG_FOLDER_NOT_OWN:
        return "the folder is refused: a link, another user's or writable by others";
    default:
        return std::generic_category().message(nProblem);
    }
}

uint32_t HostDebugLogPath(const char *szName, char *achPath, uint32_t dwSize)
{
    if (szName == nullptr || achPath == nullptr) {
        return 0;
    }
    try {
        const std::string strPath = LogFilePath(FindLogPlace(), szName, ".log");
        if (strPath.size() >= dwSize) {
            return 0;
        }
        memcpy(achPath, strPath.c_str(), strPath.size() + 1);
        return 1;
    } catch (...) {
        return 0; /* no memory */
    }
}
