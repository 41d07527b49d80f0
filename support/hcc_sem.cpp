#include "support/hcc_sem.h"

HOspSem HCCSemEnsure(HOspSem *phSem)
{
    HOspSem hCurrent = __atomic_load_n(phSem, __ATOMIC_ACQUIRE);
    if (hCurrent != nullptr) {
        return hCurrent;
    }

    HOspSem hNew = nullptr;
    if (OspSemBCreate(&hNew) == 0) {
        return nullptr;
    }
    if (__atomic_compare_exchange_n(phSem, &hCurrent, hNew, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
        return hNew;
    }
    OspSemDelete(hNew); /* another thread was first */
    return hCurrent;
}
