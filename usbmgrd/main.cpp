#include "usbmgrd/usbmgrd.h"

int main(int argc, char** argv) { return usbmgr_main(argc, argv); }
