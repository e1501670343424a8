// agent/config.h: the job configuration. One job file says who the user is
// (UserId=), where in the remote area the files go (Dest=), what the job is
// called (name=), which trees are backed up (Src=) and left out (XSrc=), and
// who gets the report (Email=, schedule_email=, html=). The user's 32-byte
// account key comes from etc/account.key below the install root.
//
// read_job_configuration fills one process-wide job_settings record, runs
// the job with it and releases it; the other agent modules read it through
// job_config() while the job runs.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "agent/account_key.h"
#include "lib/str_list.h"

constexpr size_t KEY_DIGEST_SIZE = 20;
// Lines, paths and the report file name live in buffers of this size.
constexpr size_t CONFIG_LINE_SIZE = 1024;

// Rows of the single-valued key table, in the order they are tried.
enum : int {
  CONFIG_USER_ID = 0,
  CONFIG_DEST = 1,
  CONFIG_NAME = 2,
  CONFIG_AUTOREMOVE = 3,
  CONFIG_MIRROR = 4,
  CONFIG_KEY_COUNT = 5,
};

// Error numbers of the reader: fixed, the operator sees them after "Error: ".
enum : int {
  CONFIG_ERR_KEY = 1,            // etc/account.key missing or invalid
  CONFIG_ERR_OPEN = 530,         // the job file cannot be opened
  CONFIG_ERR_EMAIL_TWICE = 568,  // Email= when a recipient list exists
  CONFIG_ERR_EMAIL_LIST = 594,   // the schedule_email= list not created
  CONFIG_ERR_REPEATED = 611,     // a table key given twice, or at all for
                                 // autoremove= and mirror=
  CONFIG_ERR_COPY = 620,         // a value could not be copied
  CONFIG_ERR_MISSING = 645,      // UserId=, Dest= or name= missing
};

struct job_settings {
  str_list* src;    // Src= values in file order
  str_list* xsrc;   // XSrc= values in file order
  str_list* email;  // recipients; null when no line named any
  int html;         // bit 0: the report is HTML (default on)
  // Values of the key table, indexed by CONFIG_USER_ID ... CONFIG_MIRROR;
  // owned, exactly the rest of the line (blanks kept).
  char* values[CONFIG_KEY_COUNT];
  uint8_t account_key[ACCOUNT_KEY_SIZE];
  uint8_t key_digest[KEY_DIGEST_SIZE];  // SHA-1 of account_key
  char report_path[CONFIG_LINE_SIZE];   // where the report file goes
};

// Loads the account key, parses config_path, chooses the report file name,
// runs the job and releases the settings. Returns 0, or an error number
// above. Writes the key-file messages to standard error and "Missing: %s\n"
// to standard output. REQUIRES: the working directory is the install root.
int read_job_configuration(const char* config_path);

// The settings of the running job; null outside read_job_configuration.
const job_settings* job_config();

// Parses one job file into *settings (which it zeroes first). Returns 0 or
// an error number; prints "Missing: %s\n" for a missing required key. On
// an error everything it allocated is released again.
int job_config_parse(const char* config_path, job_settings* settings);

// Releases what job_config_parse allocated and zeroes the lists and values;
// safe on a zeroed record and when called twice.
void job_config_release(job_settings* settings);

// Chooses the report file name for config_path: "<path>.eml" when no such
// file can be opened, else the first free "<path>-1.eml" .. "<path>-9.eml";
// when all ten exist, "<path>-9.eml" (it will be overwritten). Writes into
// out (CONFIG_LINE_SIZE bytes) and returns out.
char* report_file_name(const char* config_path, char* out);

// The value of a key-table row as a number (strtol, base 10); 0 when absent.
long job_config_number(const job_settings* settings, int row);
