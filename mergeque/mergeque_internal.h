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

// Takes the reader out of its epoll set for good and returns once no dispatch
// of it runs any more, whatever back-pressure its callbacks apply meanwhile;
// from then on a dispatch does not enter the queue and un-back-pressure
// refuses. For destruction, and for an owner that stops every reader before
// releasing what their callbacks use. Not from the reader's own thread.
void QOV_MergeQueStopReader(MergeQueCtrlBlk *mque);

#endif
