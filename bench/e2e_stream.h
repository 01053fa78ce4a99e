/* The DAM path's route-table stream of the example broker, for the end-to-end
 * bench: served over loopback TCP by a broker thread, or built in memory as
 * the host's frames for the in-process runs. Plain C, since the broker and
 * its workload are C. */
#ifndef QOV_E2E_STREAM_H
#define QOV_E2E_STREAM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct E2eStreamCfg {
    uint32_t keys;
    uint64_t seed;
    uint64_t maxEntries; /* the stream ends after about this many entries */
    uint32_t rate;       /* messages per second, 0: a flood */
    uint32_t durationMs; /* paced runs: how long the paced phase lasts */
} E2eStreamCfg;

/* The broker's phases, as QovBrokerStats reports them. */
enum { E2E_PHASE_FILL = 1, E2E_PHASE_STEADY = 2, E2E_PHASE_DONE = 4 };

/* Starts a broker thread listening on 127.0.0.1; its port, or 0 on failure.
 * It streams the fill of every DAM key, then entries until maxEntries (or the
 * paced duration), then the end message (QOV_WL_MSG_END). */
uint16_t E2eBrokerStart(const E2eStreamCfg *cfg);
int E2eBrokerPhase(void);
/* Waits for the broker thread (which ends once the consumer closes). */
void E2eBrokerJoin(void);

/* Builds the same stream in memory as host frames, end message included;
 * the buffer (malloc'd) and its length. */
uint8_t *E2eStreamBuild(const E2eStreamCfg *cfg, size_t *len, uint64_t *entries);

/* What the last stream built or served left as every key's final state. */
const uint32_t *E2eSentSeq(void);
const uint8_t *E2eSentOp(void);
/* Digest of the DAM keys' (value, operation) as QovWlDigest computes it. */
uint64_t E2eDigest(uint32_t keys, const uint32_t *seq, const uint8_t *op);
/* The key of an entry (32 bytes, prefix first), or UINT32_MAX. */
uint32_t E2eKeyOf(const void *entry, uint32_t keys);

/* Message ids of the stream. */
uint32_t E2eMsgSet(void);
uint32_t E2eMsgDel(void);
uint32_t E2eMsgEnd(void);
uint32_t E2eMergeId(void);

#ifdef __cplusplus
}
#endif

#endif
