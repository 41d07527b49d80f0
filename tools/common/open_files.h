/*
 * The limit of open files of this process.
 */
#ifndef TOOLS_COMMON_OPEN_FILES_H
#define TOOLS_COMMON_OPEN_FILES_H

/*
 * Raises it as far as this process may. Every outstanding request is an open connection, and 1,024
 * of them exceed the usual limit.
 */
void RaiseOpenFiles();

#endif
