#include "core/hal_glue.h"
