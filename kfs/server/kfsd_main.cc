// kfsd: the reference KFS server.
#include <new>

#include "kfs/server/kfsd.h"
#include "lib/alloc.h"

int main(int argc, char** argv) {
  std::set_new_handler(alloc_exhausted);
  return kfsd_command(argc, argv);
}
