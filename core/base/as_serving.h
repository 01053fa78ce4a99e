// What this thread is inside of: the entry points that run the orchestrator's
// callbacks hold a scope for what they serve (the intake and direct dispatch
// their handle, a queue's reader its queue), so that ASOrchDestroy called from
// inside one of those callbacks is refused: it would free what the caller
// returns into, or wait for the very dispatch it is called from.
#ifndef QOV_AS_CORE_BASE_SERVING_H
#define QOV_AS_CORE_BASE_SERVING_H

struct ASOrchServing {
    const void *what;  // a handle or a merge queue
    const ASOrchServing *outer;
};

// The innermost scope of this thread. __thread, not thread_local: no
// initialisation to run, so each use is one access at a fixed offset.
extern __thread const ASOrchServing *g_asServingTop __attribute__((tls_model("initial-exec")));

class ASOrchServingScope {
public:
    explicit ASOrchServingScope(const void *what) : self_{what, g_asServingTop} { g_asServingTop = &self_; }
    ~ASOrchServingScope() { g_asServingTop = self_.outer; }
    ASOrchServingScope(const ASOrchServingScope &) = delete;
    ASOrchServingScope &operator=(const ASOrchServingScope &) = delete;

private:
    ASOrchServing self_;
};

// Whether this thread is inside a scope of what.
inline bool ASOrchServingNow(const void *what) {
    for (const ASOrchServing *s = g_asServingTop; s != nullptr; s = s->outer)
        if (s->what == what) return true;
    return false;
}

#endif
