#include "base/pool.h"

POOL_TYPE DriverPoolType = NonPagedPool;
