// What other folders of the library may ask of the merge queue beyond its
// exported operations.
#ifndef QOV_MERGEQUE_INTERNAL_H
#define QOV_MERGEQUE_INTERNAL_H

#include <cstdint>

#include "qov_mergeque.h"

// Takes every queued entry out in read order and hands each to func, without
// signalling the reader or checking the low water: for releasing a queue whose
// reader is already out of its epoll set. Returns the number of entries taken.
uint32_t QOV_MergeQueDrain(MergeQueCtrlBlk *mque, MergeQueReadFunc func, void *usrData);

#endif
