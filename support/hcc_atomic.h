/*
 * Fields that one thread changes while another reads them without a lock. The fields stay
 * plain; both sides go through these, so that each access is whole.
 *
 * The relaxed pair orders nothing: for stop requests, counts for balancing and showing, the
 * log switch. The other pair is for what announces that a record is ready: whoever acquires
 * the announcement sees the record as it was when it was released.
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

template <typename T> inline T HCCLoadAcquire(const T *ptField)
{
    return __atomic_load_n(ptField, __ATOMIC_ACQUIRE);
}

template <typename T> inline void HCCStoreRelease(T *ptField, T tValue)
{
    __atomic_store_n(ptField, tValue, __ATOMIC_RELEASE);
}

#endif
