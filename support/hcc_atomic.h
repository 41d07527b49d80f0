/*
 * Fields that one thread changes while another reads them without a lock: stop requests,
 * counts for balancing and showing, the log switch. The fields stay plain; both sides go
 * through these two, so that each access is whole. Nothing is ordered by them: what must
 * be seen together is guarded by a semaphore.
 */
#ifndef SUPPORT_HCC_ATOMIC_H
#define SUPPORT_HCC_ATOMIC_H

template <typename T> inline T HCCLoadRelaxed(const T *ptField)
{
    return __atomic_load_n(ptField, __ATOMIC_RELAXED);
}

template <typename T> inline void HCCStoreRelaxed(T *ptField, T tValue)
{
    __atomic_store_n(ptField, tValue, __ATOMIC_RELAXED);
}

#endif
