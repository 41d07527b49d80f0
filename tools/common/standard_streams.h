/*
 * Standard input, output and error, at the begin and at the end of a program.
 */
#ifndef TOOLS_COMMON_STANDARD_STREAMS_H
#define TOOLS_COMMON_STANDARD_STREAMS_H

/* Opens those that are closed on /dev/null: otherwise the next file or socket gets their numbers. */
void OpenStandardStreams();

/* The exit status: nStatus, or 1, with a message, if something could not be written to standard output. */
int CheckStandardOutput(const char *szProgram, int nStatus);

#endif
