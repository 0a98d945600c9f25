/* How a request fared, in words. What the operation itself answered is another matter. */
#ifndef MUND_STATUS_H
#define MUND_STATUS_H

/* X(name, words), by value from 0. The operation ran where the status is OK or REPLY_TOO_LONG. */
#define MUND_STATUSES(X)                         \
    X(OK, "ok")                                  \
    X(NO_SERVICE, "the service is not open")     \
    X(NO_OPERATION, "no such operation")         \
    X(BAD_LENGTH, "wrong length of the request") \
    X(REPLY_TOO_LONG, "the reply does not fit")

/* The same on a socket, which knows of more. */
#define MUND_WIRE_STATUSES(X)                         \
    MUND_STATUSES(X)                                  \
    X(BAD_VERSION, "another version of the protocol") \
    X(REFUSED, "refused")

#endif
