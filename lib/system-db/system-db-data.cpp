#include "system-db-data.h"

GeneralOptions::GeneralOptions()
    : enable_desktop_notification(true), enable_iconoverlay(true),
      enable_filtered_iconoverlay(true), enable_context_menu(true), enable_startup(true),
      use_bw_icon(false), show_tutorial(true), sync_mode(0), open_folder() {}

ProxyInfo::ProxyInfo()
    : use_proxy(false), use_sys_proxy(false), proxy_ip(), proxy_port(0), user_name(), password(),
      domain(), host(), auth_type(AUTH_AUTO) {}

bool ProxyInfo::operator==(const ProxyInfo &other) const {
    return use_proxy == other.use_proxy && use_sys_proxy == other.use_sys_proxy &&
           proxy_ip == other.proxy_ip && proxy_port == other.proxy_port &&
           user_name == other.user_name && password == other.password && domain == other.domain &&
           host == other.host && auth_type == other.auth_type;
}

void ProxyInfo::clear() {
    *this = ProxyInfo();
}

std::string ProxyInfo::toString() const {
    std::string s;
    s += "use_proxy: ";
    s += use_proxy ? "true" : "false";
    s += ", use_sys_proxy: ";
    s += use_sys_proxy ? "true" : "false";
    s += ", proxy: '" + proxy_ip + "':" + std::to_string(proxy_port);
    s += ", host: '" + host + "'";
    s += ", user: '" + user_name + "'";
    s += ", password: ";
    s += password.empty() ? "(none)" : "(set)";
    s += ", domain: '" + domain + "'";
    s += ", auth_type: " + std::to_string(static_cast<int>(auth_type));
    return s;
}
