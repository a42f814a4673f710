#pragma once
// KxIpclibStreamCtrl: the link's control stream, "link-control". It receives
// the peer's "Open" messages and makes the streams they ask for, presenting
// each to the link listener; a refused open is answered with an "OpenAck"
// that carries the status.

#include <tamsel/ipc/ipclibStream.h>

namespace tamsel::ipc {

class KxIpclibStreamCtrl : public KxIpclibStream {
public:
    KxIpclibStreamCtrl(std::shared_ptr<KxIpclibLink> link, std::weak_ptr<tamsel::task::TaskExecutor> executor,
                       Flags<KxIpclibStreamFlag> flags);
    ~KxIpclibStreamCtrl() override;

    KxIpcStatusCode start();
    void stop();

private:
    // Runs on the executor. Anything but "Open" is a protocol violation by the
    // peer: it raises std::logic_error, which the executor logs and contains.
    void onRecv(KxIpcStatusCode status, const std::shared_ptr<KxIpclibMsg>& msg);
};

} // namespace tamsel::ipc
