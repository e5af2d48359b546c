/*
 * guard.h - the boundary every exported function passes through: no C++
 * exception leaves the library.  A failed allocation becomes IMG_ERR_MEMORY,
 * anything else IMG_ERR_INVALID.
 */
#ifndef TRNW_GUARD_H
#define TRNW_GUARD_H

#include <stdint.h>

#include <new>

#include "core/imgapi.h"

template <class Body>
int32_t Guarded(Body &&body) noexcept
{
    try {
        return body();
    } catch (const std::bad_alloc &) {
        return IMG_ERR_MEMORY;
    } catch (...) {
        return IMG_ERR_INVALID;
    }
}

#endif /* TRNW_GUARD_H */
