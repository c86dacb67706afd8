// zelpnl-responder: the autoresponder that a mailbox's responder action pipes
// each incoming message to (see zelresponder/responder.h).
#include <unistd.h>

#include "zelresponder/responder.h"

int main(int argc, char** argv) { return zelresponder::Main(argc, argv, STDIN_FILENO); }
