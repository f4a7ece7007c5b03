/* Calls each of the settings functions and says what it got. */
#include <envctl/sysconf.h>
#include <stdio.h>

static const char* or_none(const char* value) { return value != NULL ? value : "none"; }

int main(void) {
  char safe[128];
  char boot[128];
  printf("safe=%s", or_none(sysconf_getenv_safe("test", safe)));
  printf(" shared=%s", or_none(sysconf_getenv("test")));
  printf(" boot=%s", or_none(fw_getenv("bootdelay", boot)));
  printf(" set=%d", sysconf_setenv("test", "1"));
  printf(" print=%d", sysconf_printenv());
  printf(" open=%d", sysconf_openenv());
  printf(" close=%d\n", sysconf_closeenv());
  return 0;
}
