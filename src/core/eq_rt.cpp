#include "core/eq_rt.h"
