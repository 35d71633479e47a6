#include "daemons/maild/maild.h"

int main(int argc, char** argv) {
    MailDaemon daemon;
    return RunDaemon(daemon, argc, argv);
}
