// Logging off in every target: the input is bad on purpose, and formatting the lines would
// cost more than the parsing they follow.
#include "fuzz_support.h"
#include "ztLog.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    ztLogSetLevel(ZTLOG_LEVEL_OFF);
    if (zt::fuzz::setUp != nullptr)
        zt::fuzz::setUp();
    return 0;
}
