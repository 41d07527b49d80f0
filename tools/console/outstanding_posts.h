/*
 * Whether asynchronous posts of the send module are under way.
 *
 * The module shows them by its console listing alone. The listing is therefore run with
 * standard output caught, and read.
 */
#ifndef TOOLS_CONSOLE_OUTSTANDING_POSTS_H
#define TOOLS_CONSOLE_OUTSTANDING_POSTS_H

/* The library's log switch. */
enum { LOG_TO_DEBUGLOG = 1, LOG_TO_CONSOLE = 2, LOG_TO_BOTH = 3 };

/*
 * nLogType is the log switch as the operator has set it; it is the same again afterwards. Lines of
 * workers that come in between are printed, if the operator would have seen them. False where
 * standard output cannot be caught.
 */
bool HasOutstandingPosts(int nLogType);

#endif
