#include "core/image/image.h"
