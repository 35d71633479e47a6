// Inside platform/socket.h: where this system declares the documented socket operations and their
// records.
#pragma once

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
