// kovrabackup: runs one backup job, given the path of its job file. It is
// meant to be started by a scheduler, by its full path; once the job file
// has been read the exit status is 0 whatever befell the job, and the
// outcome is told by the report.
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>

#include "agent/config.h"
#include "agent/root.h"
#include "kfs/client/kfs.h"
#include "lib/alloc.h"

namespace {

// Printed with puts, which adds the final newline. Option texts are padded
// to 26 columns. html= and schedule_email= are left out on purpose.
constexpr char kUsage[] =
    "kovrabackup configfile\n"
    "configfile                file that contains settings and files to back "
    "up\n"
    "\n"
    "Currently supported configfile options are:\n"
    "\n"
    "name=abc                  schedule name, as used in report email\n"
    "userid=nnn                user id. Call Kovra Support to obtain your "
    "userid, or email support@kovra.example\n"
    "dest=/nnn/Today[/path]    destination of backup in My Qarn.\n"
    "src=/path                 directory tree or file to backup\n"
    "xsrc=/path                directory tree or file to exclude from "
    "backups\n"
    "email=a@b,c@d             list of emails to send at completion";

}  // namespace

int main(int argc, char** argv) {
  std::set_new_handler(alloc_exhausted);

  struct stat st;
  if (argc != 2 || stat(argv[1], &st) != 0) {
    puts(kUsage);
    return 1;
  }
  // Started through the search path: leave quietly. The agent is meant to
  // be started by its full path.
  char* slash = strrchr(argv[0], '/');
  if (slash == nullptr) {
    return 1;
  }
  // The program's own directory is cut out for the chdir and put back; the
  // agent always works in the fixed root, never in its own directory.
  *slash = '\0';
  if (chdir(kovra_root()) != 0) {
    // A missing root is not fatal: the run goes on where it was started.
  }
  *slash = '/';

  if (kfs_library_init() != 0) {
    return 1;
  }
  // The job file is opened relative to the root now, although the stat
  // above looked at it relative to the starting directory.
  int err = read_job_configuration(argv[1]);
  if (err != 0) {
    printf("Error: %d\n", err);
  }
  kfs_library_cleanup();
  return 0;
}
