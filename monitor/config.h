// What the command line and the file of --config say: one field an option.
#ifndef ZENTMON_CONFIG_H
#define ZENTMON_CONFIG_H

#include <cstdint>
#include <map>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace zentmon {

// A numeric address with a port.
struct Endpoint {
    struct sockaddr_storage ss = {};
    socklen_t len = 0;
    std::string text; // as it was given
};

// --listen ADDRESS:PORT[=NAME]
struct ListenSpec {
    Endpoint at;
    std::string name; // empty: the address it is bound to
};

// --allow CIDR. IPv4 is kept as an IPv4-mapped IPv6 address.
struct Cidr {
    uint8_t bytes[16];
    int bits; // 0 to 128
};

struct Config {
    // intake
    std::vector<ListenSpec> listen; // empty: the default, or what systemd holds
    bool stdin_lines = false;
    std::vector<Cidr> allow;                  // empty: everyone
    std::map<std::string, std::string> names; // --name: numeric address to text
    size_t receive_buffer = 64u << 20;        // --receive-buffer, bytes
    int64_t stale_s = 260;                    // 0: never
    int64_t forget_s = 0;                     // 0: never
    int64_t linger_s = 0;

    // HTTP
    Endpoint http; // len 0: --http none
    bool http_given = false;
    std::vector<std::string> hosts; // --host, in lower case

    // history
    std::string db; // empty: none
    int keep_days = 90;

    // sinks
    bool json = false;
    std::string exec; // empty: none
    int exec_max = 4;
    Endpoint forward; // len 0: none

    // MQTT
    std::string mqtt_host; // empty: none
    uint16_t mqtt_port = 1883;
    std::string mqtt_prefix = "zent";
    std::string mqtt_user;
    std::string mqtt_password_file;
    bool mqtt_tls = false; // with the system's authorities, unless mqtt_ca names others
    std::string mqtt_ca;   // PEM file
    std::string mqtt_cert; // PEM file: the client's certificate
    std::string mqtt_key;  // PEM file: its key
    std::string instance;  // --instance; the host's name by default

    // the process
    std::string log;   // empty: stderr
    int log_level = 1; // INFO_level of log.h
    std::string config_file;
};

} // namespace zentmon

#endif
