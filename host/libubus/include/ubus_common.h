/* What the client library, the bus daemon and the command agree on besides the messages. */
#ifndef UBUS_COMMON_H
#define UBUS_COMMON_H

/* The socket that a null path means. */
#ifndef UBUS_UNIX_SOCKET
#define UBUS_UNIX_SOCKET "/var/run/ubus.sock"
#endif

#endif
