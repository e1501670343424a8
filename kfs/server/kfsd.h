// kfs/server/kfsd.h: kfsd, the reference storage server of the KFS
// protocol: the service the agent's tests and demo run against, and what a
// user who hosts their own storage runs. A data folder holds everything:
// the server's RSA key, an SQLite database of users, directories, file
// versions and block digests, and the block streams, each kept once under
// the SHA-256 of its bytes in pack files that are only ever appended to.
#pragma once

// Runs the command line (argv[0] is the program): init, user add, serve.
// Returns the exit status: 0; 1 for a missing or damaged data folder or a
// failed operation; 2 for a bad command line (the usage text or a one-line
// error is printed on standard error).
int kfsd_command(int argc, char** argv);
