// Read-back of the allocation failures that the library records in the platform's event history.
#pragma once

#include <string>
#include <vector>

namespace zfxtest {

// The messages of the allocation failures held in the event history, oldest first. Each record is
// checked for its frame as the library writes it (event 0x730000, the subtype word 102, the
// message and its NUL, a length of the message's plus 5); a record that does not fit fails the
// test.
std::vector<std::string> alloc_failures();

}  // namespace zfxtest
