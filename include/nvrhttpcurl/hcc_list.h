/*
 * A doubly linked list of opaque elements.
 *
 * The list owns its nodes but not its elements: the callback given to NVRHCCListCleanUp
 * releases them, or the caller that gets one back from NVRHCCListRemove. Nodes come from
 * the memory callbacks given to NVRHCCListInit. Every operation except the clean-up takes
 * constant time. Nothing is logged and no lock is taken: a list that threads share needs a
 * lock of the caller's. To walk the list, follow ptHead and ptNext.
 */
#ifndef NVRHTTPCURL_HCC_LIST_H
#define NVRHTTPCURL_HCC_LIST_H

#include <stdint.h>

#include "nvrhttpcurl/decls.h"
#include "nvrhttpcurl/memcb.h"

NVRHTTPCURL_BEGIN_DECLS

/* What the list operations return. */
enum {
    NVRHCC_LIST_OK = 0,          /* done */
    NVRHCC_LIST_INVALID_ARG = 2, /* a bad argument; the list is unchanged */
    NVRHCC_LIST_NO_MEMORY = 3    /* no node could be allocated; the list is unchanged */
};

/* A node of a list. */
typedef struct TNVRHCCListNode {
    struct TNVRHCCListNode *ptPrev; /* null at the head */
    struct TNVRHCCListNode *ptNext; /* null at the tail */
    void *pvData;                   /* the element, never null */
} TNVRHCCListNode;

/*
 * A list. dwNumOfElem is written with relaxed atomic stores: a reader that only needs a
 * momentary count may load it atomically while another thread changes the list.
 */
typedef struct TNVRHCCList {
    uint32_t dwNumOfElem;               /* number of nodes */
    TNVRHCCListNode *ptHead;            /* null when empty */
    TNVRHCCListNode *ptTail;            /* null when empty */
    void *(*pfMalloc)(size_t);          /* makes nodes */
    void *(*pfRealloc)(void *, size_t); /* kept, never called */
    void (*pfFree)(void *);             /* releases nodes */
} TNVRHCCList;

/*
 * Makes an empty list. Nodes that the record still links are not released.
 *
 * ptMemCB: copied; null, or all three callbacks null, means malloc, realloc and free.
 * Returns 0; 2 if ptList is null or only some of the callbacks are set (the record is
 * then unchanged).
 */
uint32_t NVRHCCListInit(TNVRHCCList *ptList, const TNvrHttpCurlCltMemCB *ptMemCB);

/*
 * Removes every node, starting at the head: first the node is released, then pfFreeData is
 * called with its element. The list is empty afterwards and can be used again.
 *
 * Does nothing, not even to the nodes, if ptList or pfFreeData is null.
 * pfFreeData must not touch the list. Cost: linear.
 */
void NVRHCCListCleanUp(TNVRHCCList *ptList, void (*pfFreeData)(void *));

/*
 * Inserts an element before an anchor.
 *
 * ptAnchor: a node of this list; null means before the head.
 * pvData:   the element, not null; the list only keeps the pointer.
 * ppNode:   receives the new node unless null.
 * Returns 0; 2 if ptList or pvData is null or an anchor is given for an empty list;
 * 3 if no node could be allocated.
 */
uint32_t NVRHCCListInsertBefore(TNVRHCCList *ptList, TNVRHCCListNode *ptAnchor, void *pvData, TNVRHCCListNode **ppNode);

/* The same after an anchor; null means after the tail. */
uint32_t NVRHCCListInsertAfter(TNVRHCCList *ptList, TNVRHCCListNode *ptAnchor, void *pvData, TNVRHCCListNode **ppNode);

/*
 * Unlinks and releases a node.
 *
 * ptNode: a node of this list. This is not checked: a node of another list corrupts both.
 * ppData: receives the element unless null; it is the caller's again.
 * Returns 0; 2 if ptList or ptNode is null or the list is empty.
 */
uint32_t NVRHCCListRemove(TNVRHCCList *ptList, TNVRHCCListNode *ptNode, void **ppData);

NVRHTTPCURL_END_DECLS

#endif
