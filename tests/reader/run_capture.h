// Moved to support/reader_run.h, where every area's tests find it.
#include "support/reader_run.h"
