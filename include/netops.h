/*
 * netops.h: socket addresses and network interfaces, sockets of every kind from one description, multicast
 * membership, listeners, local domain sockets and socket options.
 *
 * Addresses travel as struct sockaddr_storage, or as struct sockaddr* with a length; ports and addresses
 * inside them are in network byte order, as the system has them. AF_INET and AF_INET6 are known everywhere,
 * AF_UNIX to saddr_str and the domain calls alone.
 *
 * State: one bit, the form of the multicast options (set_legacy_mcast_api). Everything is logged in the slot
 * MLL_COMMON; failed system calls also leave the line of their checked call (syswrap.h).
 */
#ifndef MORVANE_NETOPS_H
#define MORVANE_NETOPS_H

#include <net/if.h>
#include <netdb.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/types.h>

#include "mvtypes.h"

MV_BEGIN_DECLS

struct addrinfo; /* of <netdb.h>, which hides it in strict C */

/* LISTEN_BKLOG: backlog of every listener that is opened here. */
enum { LISTEN_BKLOG = 128 };

/* ifc_info: a network interface. Allocated zeroed by the call that returns it; the caller owns it and
 * releases it with free(). */
struct ifc_info {
    uint32_t idx;               /* the kernel's index; 0: no particular interface */
    char name[IF_NAMESIZE];     /* the kernel's name; empty: any interface */
    struct sockaddr_storage ss; /* an address of it; family 0: none known yet */
};

/* socket_spec: what a caller wants of a socket, and what open_socket found out. Zero it, then set the fields
 * marked "in". */
struct socket_spec {
    unsigned int writer : 1;         /* in: it sends; a datagram socket that is no writer receives */
    unsigned int passive : 1;        /* in: the server's side: bound, and listening if it is a stream */
    unsigned int multicast : 1;      /* in: treat as multicast; out: set if the address is, never cleared */
    unsigned int non_blocking : 1;   /* in: non-blocking before anything is done with it */
    unsigned int async_connect : 1;  /* out: a connect is in progress (socket_error tells how it ended) */
    unsigned int defer_listen : 1;   /* in: a stream listener is bound, the caller calls listen() */
    int family;                      /* in: AF_INET, AF_INET6, or 0 for either; out: of the socket made */
    int socktype;                    /* in: SOCK_STREAM, SOCK_DGRAM; others go to the system as they are */
    struct sockaddr_storage addr_ss; /* out: address of the set-up; a sender's destination */
    socklen_t addr_len;              /* out: its length */
    bool is_ssm;                     /* out: a datagram socket with a source of its own */
    struct sockaddr_storage src_ss;  /* out: that source */
    socklen_t src_len;               /* out: its length */
};

/* -- Addresses and interfaces -- */

/* af_name: "IPv4", "IPv6", "UNSPEC" (0), or "#??#" for any other family. Static text. */
const char* af_name(int af);

/* anyaddr_str: the any-address of a family, "0.0.0.0" or "::"; "#error#" for any other family. Static text.
 */
const char* anyaddr_str(int af);

/* is_anyaddr: 1 if the text names no particular address or interface: NULL, empty, "any" or "all" in any case
 * of letters. Else 0, also for "0.0.0.0". */
int is_anyaddr(const char* addr_str);

/*
 * name2af: the family that a configuration names, in any case of letters: AF_INET for inet4, inet, ipv4,
 * af_inet, pf_inet; AF_INET6 for inet6, ipv6, af_inet6, pf_inet6; 0, no particular family, for every other
 * text. Only the word "all" is refused: -1, logged at ERR_level.
 */
int name2af(const char* name);

/* is_multicast: 1 for a group address (224.0.0.0/4, RFC 5771; ff00::/8, RFC 4291), else 0; -1, logged, for
 * another family than AF_INET and AF_INET6. */
int is_multicast(struct sockaddr* sa);

/* is_unspecified: 1 for the all-zero address, else 0; -1, logged, for another family. */
int is_unspecified(struct sockaddr* sa);

/* is_ipv6_mc_local: 1 for an IPv6 group of interface-local or link-local scope (RFC 4291, 2.7), else 0. A
 * unicast link-local address gives 0. */
int is_ipv6_mc_local(struct sockaddr* sa);

/* saddr_size: bytes of the address structure of the family, 16 or 28; (socklen_t)-1, logged, for another
 * family. */
socklen_t saddr_size(const struct sockaddr* sa);

/*
 * saddr_str: writes the address as text into buf, at most len bytes with the terminator, and returns buf.
 * IPv4 is "HOST:PORT", IPv6 "[HOST]:PORT" with the scope behind "%" where there is one, a domain socket
 * "DOMAIN PATH:SERVICE". salen bounds what is read of sa. No name is looked up. A text that is too long is
 * cut. A len of 0 writes nothing. NULL if the address cannot be shown; logged, unless the reason is a family
 * that has no form here.
 */
char* saddr_str(struct sockaddr* sa, socklen_t salen, char* buf, size_t len);

/* dump_ai: writes one result of a look-up to a stream, field by field. An address that cannot be shown is
 * told on the same stream. */
void dump_ai(FILE* out, const struct addrinfo* ai);

/* dump_sa_info: writes "MSG FAMILY HOST:SERVICE" and a line end to a stream; msg may be NULL. An address that
 * cannot be shown is told on the same stream. */
void dump_sa_info(FILE* fp, const char* msg, const struct sockaddr* sa, socklen_t addrlen);

/*
 * ifaddr_index: the index of the interface that has this name or this numeric address. 0 if there is none; a
 * text that is neither leaves no line in the log. An address is stored in *ss (ss may be NULL); for a name,
 * *ss is left alone. If the list of interfaces cannot be had, the result is the errno value of that failure,
 * which cannot be told from an index. REQUIRES: ifc.
 */
unsigned int ifaddr_index(const char* ifc, struct sockaddr_storage* ss);

/*
 * ifc_addr_lookup: copies the named interface's first address of the family to sa, which has room for len
 * bytes. 0; -1, logged, if the interface has none; an errno value, logged, if the list of interfaces cannot
 * be had. REQUIRES: ifc and sa; len for an address of the family.
 */
int ifc_addr_lookup(int family, const char* ifc, struct sockaddr* sa, socklen_t len);

/*
 * get_ifc_info: the record of the interface that tag names, by its name or by one of its numeric addresses;
 * af is the family of the address to look up where tag is a name. NULL, logged, if there is none, or no
 * memory. The caller owns the record.
 */
struct ifc_info* get_ifc_info(int af, const char* tag);

/* is_non_blocking: the O_NONBLOCK bit of the descriptor's flags as it stands, zero or not; -1, logged, if
 * they cannot be read. */
int is_non_blocking(int sockfd);

/* set_nblock: makes the descriptor non-blocking for an nblock of 1, blocking for 0 and for any other number;
 * for the latter the system is called in every case. 0; -1 with errno, logged. */
int set_nblock(int sockfd, int nblock);

/* set_blocking, set_non_blocking: set_nblock with 0 and with 1. */
#define set_blocking(a) set_nblock((a), 0)
#define set_non_blocking(a) set_nblock((a), 1)

/* set_ipv6only: sets IPV6_V6ONLY of an IPv6 socket that is not bound yet. Failures are logged, or told on
 * stderr if the option cannot be read. Turning it off warns in the log even where it succeeds. */
void set_ipv6only(int fd, int on);

/* -- Any socket from one description -- */

/*
 * open_socket: resolves the address, makes the socket and does what its kind needs: a datagram reader is
 * bound, a datagram writer is left alone (spec->addr_ss is its destination), a stream client is connected, a
 * passive socket is bound and, if a stream, listens; a group's reader is bound to the group and joins it, a
 * group's writer gets the outgoing interface.
 *
 * addr: a numeric address or a name; NULL is the any-address of spec->family, of IPv4 if that is 0. A plain
 * number is refused. port: a decimal number; NULL only for types other than stream and datagram. auth: the
 * source of a source-specific group, with or without ":PORT"; NULL for none, and not read for streams.
 * ifc_tag: interface of a group, by name or by address; a word of is_anyaddr for any. An interface that does
 * not exist is logged and leaves the socket on the default one.
 *
 *   a descriptor        the socket, which the caller owns; a stream's connect may be in
 *                       progress (async_connect)
 *   -1, EINPROGRESS     a connect in progress of a passive socket of another type than
 *                       stream and datagram
 *   -1, other errno     the reason is in the log; errno is what the last step left
 *
 * After -1 the out fields may be partly written. On success *ifi, if ifi is not NULL, becomes the interface
 * record of a multicast socket, which the caller owns and needs to leave the group, or NULL. Blocks while a
 * name is resolved, and in the connect unless non_blocking is set. REQUIRES: a port for streams and
 * datagrams; a multicast address is not opened passive; source and group of one family; for an IPv4 group's
 * writer an ifc_tag that is no IPv6 address.
 */
int open_socket(const char* addr, const char* port, const char* auth, struct socket_spec* spec,
                const char* ifc_tag, struct ifc_info** ifi);

/*
 * mk_sockaddr: resolves a text "HOST:PORT" for sockets of type stype and protocol proto (0 for any) to the
 * first address for which a socket can be made. The last colon divides; brackets are not understood. The port
 * is a decimal number. Hosts of up to six characters are refused. 0 with *ss and *slen; 22 (EINVAL), logged,
 * for a text that is refused; -1 if it does not resolve. REQUIRES: stype is SOCK_DGRAM or SOCK_STREAM.
 */
int mk_sockaddr(const char* addr_port, int stype, int proto, struct sockaddr_storage* ss, socklen_t* slen);

/* ends_with_port: whether the text ends in a colon and one or more digits. */
bool ends_with_port(const char* addr);

/* reuse_and_bind: sets SO_REUSEADDR and, where the kernel has it, SO_REUSEPORT, and binds. 0, or an errno
 * value. */
int reuse_and_bind(int sock, struct sockaddr* addr, socklen_t addrlen);

/* -- Multicast membership -- */

/*
 * set_legacy_mcast_api: anything but 0 makes membership calls use the older options of each protocol (RFC
 * 3678, 4.1: an interface is an address) instead of the protocol-independent ones (RFC 3678, 5.1: an
 * interface is an index). 0 does nothing: it cannot be turned off again. To be called before sockets are
 * opened.
 */
void set_legacy_mcast_api(int ON);

/*
 * mcast_join, mcast_leave: enter and leave the group *grs on an interface; a NULL mifc leaves the choice to
 * the kernel. In the older form for IPv4 an address that mifc lacks is looked up and stays in it. 0; -1 with
 * errno, logged; an errno value, logged, where the list of interfaces cannot be had. REQUIRES: mifc in the
 * older form for IPv4.
 */
int mcast_join(int sockfd, struct sockaddr_storage* grs, struct ifc_info* mifc);
int mcast_leave(int sockfd, struct sockaddr_storage* grs, struct ifc_info* mifc);

/*
 * ssm_join: enters the group *grs for the one source *src. As mcast_join; also -22, logged, for IPv6 in the
 * older form, which has no such option. REQUIRES: as mcast_join; source and group of one family.
 */
int ssm_join(int sockfd, struct sockaddr_storage* src, struct sockaddr_storage* grs, struct ifc_info* mifc);

/* ssm_leave: issues the same join as ssm_join, and returns what came of it. A source is left by closing the
 * socket. */
int ssm_leave(int sockfd, struct sockaddr_storage* src, struct sockaddr_storage* grs, struct ifc_info* mifc);

/* set_mcast_ttl: the hop limit of outgoing group datagrams. 0; an errno value, logged. REQUIRES: family
 * AF_INET or AF_INET6. */
int set_mcast_ttl(int family, int fd, int ttl);

/* set_ipv6_sock_ifc: the interface of an IPv6 socket's outgoing group datagrams. 0; -1, logged, for index 0;
 * an errno value, logged. */
int set_ipv6_sock_ifc(int sock, uint32_t index);

/*
 * sync_ipv6addr_scope_id: gives an IPv6 address that has no scope id the one of the interface address
 * *ifc_ss. If that has family 0, it is first looked up by ifc_name and WRITTEN, though declared const: it
 * must not be in read-only memory. What was done is logged at ERR_level. Other families are left alone.
 */
void sync_ipv6addr_scope_id(struct sockaddr* sa, const char* ifc_name, const struct sockaddr_storage* ifc_ss);

/* -- Listeners, domain sockets, options -- */

/*
 * open_listener, open_udp_listener: a non-blocking TCP or UDP socket bound to the address *ss and the decimal
 * port, which is WRITTEN into *ss though that is declared const. A text that is no port from 1 to 65535 is
 * logged and used all the same: 0 lets the kernel choose, more than 65535 is cut to 16 bits. The TCP socket
 * listens unless defer_listen is non-zero; for UDP a NULL port keeps the one in *ss. The descriptor, or -1,
 * logged. REQUIRES: a port for TCP.
 */
int open_listener(const struct sockaddr_storage* ss, const char* port, int defer_listen);
int open_udp_listener(const struct sockaddr_storage* ss, const char* port);

/* open_anyaddr_listener: a non-blocking TCP listener on the any-address of a family, by open_socket; that of
 * AF_INET6 takes IPv4 too. The descriptor, or -1. */
int open_anyaddr_listener(int af, const char* port, int defer_listen);

/* open_domain_listener: a non-blocking stream listener at a path, of which 107 bytes are used. What stands at
 * the whole path is removed first. The descriptor, or -1, logged. */
int open_domain_listener(const char* path);

/*
 * open_domain_client: connects a blocking stream socket to a path, at most max_attempts times, with a pause
 * of pause_msec milliseconds (none for 0 or less) after each attempt that failed. Ends early when g_quit is
 * set or a signal ends the pause. The descriptor, or -1, logged. REQUIRES: a path of fewer than 108
 * characters.
 */
int open_domain_client(const char* path, size_t max_attempts, long int pause_msec);

/* set_tcp_nodelay, set_tcp_cork: TCP_NODELAY and TCP_CORK, on for anything but 0. 0, logged at INFO_level; -1
 * with errno, logged. */
int set_tcp_nodelay(int sockfd, int is_on);
int set_tcp_cork(int sockfd, int is_on);

/* set_keepalive: SO_KEEPALIVE, on for anything but 0. 0; -1, logged. */
int set_keepalive(int sockfd, int optval);

/* set_keepalive_on, set_keepalive_off: set_keepalive with 1 and with 0. */
#define set_keepalive_on(s) set_keepalive((s), 1)
#define set_keepalive_off(s) set_keepalive((s), 0)

/* set_socket_sendbuf, set_socket_rcvbuf: the size of the kernel's buffer, in bytes, of which the kernel reads
 * the low 32 bits. 0; -1 with errno, logged. */
int set_socket_sendbuf(int sockfd, size_t length);
int set_socket_rcvbuf(int sockfd, size_t length);

/* set_rcv_timeout, set_send_timeout: how long a blocking call may wait, in milliseconds; 0: for ever. 0; -1
 * with errno, logged. */
int set_rcv_timeout(int sockfd, int ms);
int set_send_timeout(int sockfd, int ms);

/* socket_error: the socket's pending error, which this clears; 0 for none. Any other value is logged and also
 * put in errno. If the query itself fails, the result is its errno value. */
int socket_error(int sockfd);

/* get_peer_ipaddr: the text of saddr_str for the peer's address and port in buf; NULL, logged, with errno, if
 * there is no peer. */
const char* get_peer_ipaddr(int sockfd, char* buf, size_t buflen);

MV_END_DECLS

#endif
