// privdiag [512|4096] IMAGE: print the private region of a disk image.
#include "driver/driver.h"

int main(int argc, char** argv) {
  pd::session s;
  return pd::privdiag_main(s, argc, argv);
}
