/*
 * A libcurl that costs nothing and always takes the same way: each transfer is answered with status 200 and five
 * bytes. It replaces the real one in a program that defines these functions itself.
 *
 * A transfer of a multi handle is over with the second perform. Its wait returns at once while there is a transfer,
 * and otherwise rests until a datagram wakes the worker up.
 */
#ifndef TESTS_FIGURES_FAKE_LIBCURL_H
#define TESTS_FIGURES_FAKE_LIBCURL_H

#include <cstdint>

/* So many rests end at once, without a wake-up. */
void PassIdly(uint32_t passes);

/* Returns when so many workers rest and no idle pass is left. */
void AwaitRest(uint32_t workers);

#endif
