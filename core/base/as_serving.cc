#include "core/base/as_serving.h"

__thread const ASOrchServing *g_asServingTop = nullptr;
