// The tunnel router's batches for one master as a simple sequence of
// candidates ("" means a direct connection). It refers to the router, which
// must outlive it.
//
//   QXWebsvcTunnelIterator it(router, "master1");
//   for (;;) {
//     if (!it.hasNext()) { it.fetchTunnels(); if (!it.hasNext()) break; }
//     std::string tunnel = it.next();
//   }
#ifndef QXCURL_WEBSVC_TUNNEL_ITERATOR_H
#define QXCURL_WEBSVC_TUNNEL_ITERATOR_H
#include <string>
#include <vector>

#include "qxcurl/qxcurl_export.h"

class QXWebsvcTunnelRouter;

// The router's batches of tunnel candidates for one master as a sequence.
// When hasNext() turns false the caller calls fetchTunnels() for the next
// batch; an empty batch ends the walk. An empty candidate means "direct".
class QX_API QXWebsvcTunnelIterator {
 public:
  QXWebsvcTunnelIterator(QXWebsvcTunnelRouter& router, std::string master);

  // Restarts the router's lookup and fetches the first batch when tunnels
  // may be used at all.
  void init();
  void reset();
  // Takes effect at the next reset().
  void setMasterServer(std::string master);
  void fetchTunnels();
  bool hasNext();
  // Unchecked: call hasNext() first.
  std::string next();

 private:
  int m_position;
  QXWebsvcTunnelRouter& m_router;
  std::vector<std::string> m_tunnels;
  std::string m_master;
};
#endif  // QXCURL_WEBSVC_TUNNEL_ITERATOR_H
