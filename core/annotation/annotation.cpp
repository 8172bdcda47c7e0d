#include "core/annotation/annotation.h"
