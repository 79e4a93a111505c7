#include "core/ring_engine.h"
