// usage: tolk_interop serve tcp4|tcp6 PORT
//        tolk_interop call tcp4|tcp6 PORT close|die
#include <string>

#include "roles.h"

int main(int count, char** words) {
  if (count == 4 && std::string(words[1]) == "serve") return interop::serve(words[2], words[3]);
  if (count == 5 && std::string(words[1]) == "call") {
    return interop::call(words[2], words[3], words[4]);
  }
  return 2;
}
