/*
 * Receive buffers for many sends at once, safe against a library that copies without a bound.
 *
 * Each buffer ends directly before unreadable memory, so that an answer that does not fit
 * ends the program instead of overwriting its neighbours unseen. Pages are taken from the
 * system when an answer first reaches them, and clearing gives them back: a generous capacity
 * costs address space, not memory.
 */
#ifndef TOOLS_POST_ANSWER_SLAB_H
#define TOOLS_POST_ANSWER_SLAB_H

#include <cstddef>
#include <cstdint>

struct TAnswerSlab {
    char *pchMap;        /* null: not created */
    size_t uStride;      /* from one buffer's pages to the next one's */
    size_t uDataLen;     /* accessible bytes of each */
    uint32_t dwCapacity; /* longest answer; one byte more is there for a terminator */
    uint32_t dwCount;
};

/* All buffers zeroed. False if there is no memory; nothing is kept then. */
bool AnswerSlabCreate(TAnswerSlab &tSlab, uint32_t dwCount, uint32_t dwCapacity);

/* Allowed for a slab that was not created. */
void AnswerSlabDestroy(TAnswerSlab &tSlab);

/* dwCapacity + 1 bytes. */
char *AnswerSlabText(const TAnswerSlab &tSlab, uint32_t dwIndex);

/* Whether this is the text of one of the buffers. */
bool AnswerSlabHas(const TAnswerSlab &tSlab, const char *pchText);

/* The buffer whose text this is. */
uint32_t AnswerSlabIndex(const TAnswerSlab &tSlab, const char *pchText);

/* All zero again. */
void AnswerSlabClear(const TAnswerSlab &tSlab, uint32_t dwIndex);

/*
 * From here on a write past the end of a buffer of this slab prints szMessage to standard error and
 * ends the process at once with nStatus. One slab in a process; szMessage is not copied.
 */
bool AnswerSlabReportOverrun(const TAnswerSlab &tSlab, const char *szMessage, int nStatus);

#endif
