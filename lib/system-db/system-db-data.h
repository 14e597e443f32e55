#ifndef QUILLON_LIB_SYSTEM_DB_SYSTEM_DB_DATA_H
#define QUILLON_LIB_SYSTEM_DB_SYSTEM_DB_DATA_H

#include "ustring/ustring.h"

#include <cstdint>
#include <string>

// The client's general settings, kept as key/value rows of system_table. The
// constructor sets the values a client that never saved its settings uses.
struct GeneralOptions {
    GeneralOptions();

    bool enable_desktop_notification;
    bool enable_iconoverlay;
    bool enable_filtered_iconoverlay;
    bool enable_context_menu;
    bool enable_startup;
    bool use_bw_icon; // stored under "use_black_white_icon"
    bool show_tutorial;
    int32_t sync_mode;
    ustring open_folder;
};

// How to reach the network through a proxy: the user's own choice in
// system_table and, per connection, in connection_table.
class ProxyInfo {
public:
    enum AuthType {
        AUTH_AUTO = 0,
        AUTH_NONE = 1,
        AUTH_BASIC = 2,
        AUTH_NTLMv1 = 3,
        AUTH_NTLMv2 = 4,
    };

    ProxyInfo();
    ProxyInfo(const ProxyInfo &other) = default;
    ProxyInfo &operator=(const ProxyInfo &other) = default;

    bool operator==(const ProxyInfo &other) const;
    bool operator!=(const ProxyInfo &other) const { return !(*this == other); }

    // Back to no proxy and empty fields.
    void clear();
    // One line for the log. The password is never written out, only whether
    // there is one.
    std::string toString() const;

    bool use_proxy;
    bool use_sys_proxy;
    std::string proxy_ip;
    uint16_t proxy_port;
    std::string user_name;
    std::string password;
    std::string domain;
    std::string host;
    AuthType auth_type;
};

#endif
