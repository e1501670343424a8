// agent/root.h: the install root, the directory the agent works in. Every
// relative path of the agent (etc/account.key, etc/hosts, the index and the
// time-stamp files) resolves below it once main has changed into it.
#pragma once

// The root as an absolute path without a trailing '/'. The shipped program
// returns the path it was built with; the test build links its own.
const char* kovra_root();
