// Reads, lists and writes the device's persistent settings by running the device's own tools: /usr/kelo/bin/sysconfig,
// and fw_printenv for the boot loader's environment. For C and C++.
//
// Names and values go to the shell as they are, without quoting: pass none that come from strangers. A name or value
// that makes the command longer than 127 characters is refused before anything is started.
//
// Each attempt costs one child process. None of these functions throws. Each waits for its tool for 10 s, its attempts
// together; then the tool is killed with all that it started, and counts as one that failed. No tool outlives this
// process, unless that is killed itself. A tool that cannot be started is reported on standard output as "<N>popen
// read_device_info", where N tells the operation: 54 get, 93 print, 122 set, 163 boot loader.
//
// A tool inherits the calling thread's signal mask: where SIGINT is blocked, Ctrl-C doesn't end it, but the end of this
// process does. (To open SIGINT for the time of the start would have the interrupt handler run on the calling thread,
// in the middle of popen.)
#ifndef ENVCTL_SYSCONF_H_
#define ENVCTL_SYSCONF_H_

#ifdef __cplusplus
extern "C" {
#endif

// Read the setting `name`, or the boot loader's variable, into `buffer` and return it. `buffer` must hold 128 bytes: of
// the tool's answer, "NAME=VALUE", the first 127 characters are read. NULL when an argument is NULL, or when three
// attempts gave nothing of that form; the content of `buffer` is then not defined. Any thread.
//
// fw_getenv cuts its command at 127 characters instead of refusing it.
char* sysconf_getenv_safe(const char* name, char* buffer);
char* fw_getenv(const char* name, char* buffer);

// The same into a buffer of the process, which the next call of any thread overwrites: for one thread at a time.
char* sysconf_getenv(const char* name);

// Writes the setting `name`; with a NULL `value` the tool gets the name alone. Returns 0 when the tool was started,
// also when it failed or hung; -1 when it was not, or when `name` is NULL. Any thread.
int sysconf_setenv(const char* name, const char* value);

// Writes all settings to standard error, one per line. Returns 0, or -1 when the tool could not be started. Any thread.
int sysconf_printenv(void);

// Lets the calling thread's calls of the functions above be given up from elsewhere: while `fd` is not -1, a call ends
// as a failed one as soon as `fd` is readable, and its tool is killed with all that it started. Nothing is read from
// the descriptor, which stays the caller's.
void sysconf_set_stop_fd(int fd);

// Do nothing and return 0.
int sysconf_openenv(void);
int sysconf_closeenv(void);

#ifdef __cplusplus
}
#endif

#endif  // ENVCTL_SYSCONF_H_
