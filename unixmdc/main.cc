// Process entry of kestrixd.
#include "unixmdc/kestrixd.h"

int main(int argc, char** argv) { return KestrixdMain(argc, argv); }
