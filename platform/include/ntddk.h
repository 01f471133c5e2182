// The kernel interface as a driver sees it.
#pragma once

#include <wdm.h>
