/*
 * The device's application base library: small text, delay and address helpers.
 *
 * Closed on the device, implemented by platform/host elsewhere. All calls are thread-safe
 * and keep no pointer that they receive.
 */
#ifndef PLATFORM_APPBASE_H
#define PLATFORM_APPBASE_H

#include <stdint.h>

#include "nvrhttpcurl/decls.h"

NVRHTTPCURL_BEGIN_DECLS

typedef struct TAppNetAddr {
    uint32_t dwFamily;
    uint32_t dwIPv4; /* network byte order */
    uint8_t abyReserved[12];
} TAppNetAddr; /* 20 bytes */

/*
 * The first occurrence of szPart in szText, case-sensitive, or null; szText itself for an
 * empty szPart. Null if either is null.
 */
char *AppStrstr(const char *szText, const char *szPart);

/* The length without terminator; 0 for null. */
uint32_t AppStrlen(const char *szText);

/* Sleeps for about dwMS milliseconds; 0 returns at once. */
void AppDelay(uint32_t dwMS);

/* 16 bits from host to network byte order. */
uint16_t AppConvertHtons(uint16_t wHost);

/*
 * Converts a dotted IPv4 text into an address record.
 *
 * ptAddr: zeroed by the caller; dwFamily and dwIPv4 are written on success only.
 * Returns 0 on SUCCESS; any other value is an error: a null pointer or a text that is not a
 * dotted IPv4 address.
 */
uint32_t AppConvertStrtoNet(const char *szAddr, TAppNetAddr *ptAddr);

NVRHTTPCURL_END_DECLS

#endif
