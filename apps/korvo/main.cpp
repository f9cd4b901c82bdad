#include "line/commandline.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

/// Started without one of the standard streams, the program would get its number for the next file that it opens, and
/// print errors into a socket.
void fillStandardStreams() {
  for (int file = ::open("/dev/null", O_RDWR); file >= 0; file = ::open("/dev/null", O_RDWR)) {
    if (file <= STDERR_FILENO) continue;
    ::close(file);
    return;
  }
}

}  // namespace

int main(int argc, char** argv) {
  fillStandardStreams();
  return korvo::runProgram(argc, argv);
}
