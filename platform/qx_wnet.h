#ifndef QX_WNET_H
#define QX_WNET_H
// Network library. More of it (address cache, preferred-network rules) comes
// with the preferred-network connector.

// True when `host` names this machine ("localhost", its host name or one of
// its addresses) and the configuration lists this machine as a server of the
// product: its name is the first SERVER entry or IS_SERVER = YES is set.
bool wnet_is_server(const char* host);
#endif
