/*
 * contracts.cpp - the row targets a row sink offers its readers.
 */
#include "core/contracts.h"

#include <stddef.h>

namespace {
ImgRowSink targetSink;
ImgRowTargetFinder targetFinder;
} // namespace

void ImgOfferRowTargets(ImgRowSink rowSink, ImgRowTargetFinder finder)
{
    targetSink = rowSink;
    targetFinder = finder;
}

uint8_t *ImgRowTarget(ImgRowSink rowSink, void *sinkContext, int rowIndex, int rowBytes)
{
    return rowSink && rowSink == targetSink ? targetFinder(sinkContext, rowIndex, rowBytes) : NULL;
}
