#pragma once

namespace interop {

// 0 when all was right. They print what they do, the library's lines among it.
int serve(const char* transport, const char* port);
int call(const char* transport, const char* port, const char* end);

}  // namespace interop
