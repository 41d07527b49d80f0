#include "nvrhttpcurl/hcc_list.h"

#include <stdlib.h>

#include "support/hcc_atomic.h"

/* Only the count may be read without the list's lock. */
static void SetCount(TNVRHCCList *ptList, uint32_t dwCount)
{
    HCCStoreRelaxed(&ptList->dwNumOfElem, dwCount);
}

/* Links a new node between two neighbours; either is null at that end of the list. */
static uint32_t InsertBetween(TNVRHCCList *ptList, TNVRHCCListNode *ptPrev, TNVRHCCListNode *ptNext, void *pvData,
                              TNVRHCCListNode **ppNode)
{
    TNVRHCCListNode *ptNode = static_cast<TNVRHCCListNode *>(ptList->pfMalloc(sizeof(TNVRHCCListNode)));
    if (ptNode == nullptr) {
        return NVRHCC_LIST_NO_MEMORY;
    }
    ptNode->ptPrev = ptPrev;
    ptNode->ptNext = ptNext;
    ptNode->pvData = pvData;

    (ptPrev != nullptr ? ptPrev->ptNext : ptList->ptHead) = ptNode;
    (ptNext != nullptr ? ptNext->ptPrev : ptList->ptTail) = ptNode;
    SetCount(ptList, ptList->dwNumOfElem + 1);
    if (ppNode != nullptr) {
        *ppNode = ptNode;
    }
    return NVRHCC_LIST_OK;
}

static bool IsInsertable(const TNVRHCCList *ptList, const TNVRHCCListNode *ptAnchor, const void *pvData)
{
    return ptList != nullptr && pvData != nullptr && (ptList->ptHead != nullptr || ptAnchor == nullptr);
}

uint32_t NVRHCCListInit(TNVRHCCList *ptList, const TNvrHttpCurlCltMemCB *ptMemCB)
{
    if (ptList == nullptr) {
        return NVRHCC_LIST_INVALID_ARG;
    }

    TNvrHttpCurlCltMemCB tMemCB = {malloc, realloc, free};
    if (ptMemCB != nullptr) {
        const bool bAll = ptMemCB->pfMalloc != nullptr && ptMemCB->pfRealloc != nullptr && ptMemCB->pfFree != nullptr;
        const bool bNone = ptMemCB->pfMalloc == nullptr && ptMemCB->pfRealloc == nullptr && ptMemCB->pfFree == nullptr;
        if (!bAll && !bNone) {
            return NVRHCC_LIST_INVALID_ARG;
        }
        if (bAll) {
            tMemCB = *ptMemCB;
        }
    }

    SetCount(ptList, 0);
    ptList->ptHead = nullptr;
    ptList->ptTail = nullptr;
    ptList->pfMalloc = tMemCB.pfMalloc;
    ptList->pfRealloc = tMemCB.pfRealloc;
    ptList->pfFree = tMemCB.pfFree;
    return NVRHCC_LIST_OK;
}

void NVRHCCListCleanUp(TNVRHCCList *ptList, void (*pfFreeData)(void *))
{
    if (ptList == nullptr || pfFreeData == nullptr) {
        return;
    }

    TNVRHCCListNode *ptNode = ptList->ptHead;
    while (ptNode != nullptr) {
        TNVRHCCListNode *ptNext = ptNode->ptNext;
        void *pvData = ptNode->pvData;
        ptList->pfFree(ptNode);
        pfFreeData(pvData);
        ptNode = ptNext;
    }
    SetCount(ptList, 0);
    ptList->ptHead = nullptr;
    ptList->ptTail = nullptr;
}

uint32_t NVRHCCListInsertBefore(TNVRHCCList *ptList, TNVRHCCListNode *ptAnchor, void *pvData, TNVRHCCListNode **ppNode)
{
    if (!IsInsertable(ptList, ptAnchor, pvData)) {
        return NVRHCC_LIST_INVALID_ARG;
    }
    TNVRHCCListNode *ptNext = ptAnchor != nullptr ? ptAnchor : ptList->ptHead;
    return InsertBetween(ptList, ptNext != nullptr ? ptNext->ptPrev : nullptr, ptNext, pvData, ppNode);
}

uint32_t NVRHCCListInsertAfter(TNVRHCCList *ptList, TNVRHCCListNode *ptAnchor, void *pvData, TNVRHCCListNode **ppNode)
{
    if (!IsInsertable(ptList, ptAnchor, pvData)) {
        return NVRHCC_LIST_INVALID_ARG;
    }
    TNVRHCCListNode *ptPrev = ptAnchor != nullptr ? ptAnchor : ptList->ptTail;
    return InsertBetween(ptList, ptPrev, ptPrev != nullptr ? ptPrev->ptNext : nullptr, pvData, ppNode);
}

uint32_t NVRHCCListRemove(TNVRHCCList *ptList, TNVRHCCListNode *ptNode, void **ppData)
{
    if (ptList == nullptr || ptList->ptHead == nullptr || ptNode == nullptr) {
        return NVRHCC_LIST_INVALID_ARG;
    }

    (ptNode->ptPrev != nullptr ? ptNode->ptPrev->ptNext : ptList->ptHead) = ptNode->ptNext;
    (ptNode->ptNext != nullptr ? ptNode->ptNext->ptPrev : ptList->ptTail) = ptNode->ptPrev;
    if (ppData != nullptr) {
        *ppData = ptNode->pvData;
    }
    ptList->pfFree(ptNode);
    SetCount(ptList, ptList->dwNumOfElem - 1);
    return NVRHCC_LIST_OK;
}
