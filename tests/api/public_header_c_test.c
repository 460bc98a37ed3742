/* The public header compiles as C99 and the table is reachable from C. */
#include "qvnlib/qvnlib.h"

#include <string.h>

int main(void) {
  const QvnLibApiTable *t = &MAG_LIB_API_INTERFACE;
  ChipInfo info;
  memset(&info, 0, sizeof info);
  if (strcmp(t->name, "libqvnlib") != 0) return 1;
  if (t->QVN_FusionEnableLib(5) != 5) return 2;
  return 0;
}
