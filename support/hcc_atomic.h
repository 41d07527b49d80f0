/*
 * Access to fields that one thread changes while another reads them without a lock. The
 * fields are plain; both sides use these functions, so that each access is atomic.
 *
 * The relaxed pair orders nothing: it is for stop requests, the log switch, and counts that
 * are only compared or shown. The other pair is for fields that announce a finished record: a
 * thread that acquires the field sees the record as it was when the field was released.
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
