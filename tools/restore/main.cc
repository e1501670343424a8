// kovrarestore: brings files backed up by kovrabackup back from the
// service, compares them with a local tree, or lists what the service holds.
#include <stdio.h>
#include <unistd.h>

#include <new>
#include <string>

#include "lib/alloc.h"
#include "tools/restore/restore.h"

int main(int argc, char** argv) {
  std::set_new_handler(alloc_exhausted);
  restore_options options;
  std::string error;
  if (restore_parse_args(argc, argv, &options, &error) != RESTORE_EXIT_OK) {
    fprintf(stderr, "kovrarestore: %s\n\n%s", error.c_str(), restore_usage());
    return RESTORE_EXIT_USAGE;
  }
  if (options.help) {
    fputs(restore_usage(), stdout);
    return RESTORE_EXIT_OK;
  }
  options.progress = isatty(STDERR_FILENO) != 0;
  return restore_run(options);
}
