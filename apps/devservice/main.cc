// kestro-devservice: the development service and its command-line client.
#include "devservice/cli.h"

int main(int argc, char** argv) { return kestro::devservice::runMain(argc, argv); }
