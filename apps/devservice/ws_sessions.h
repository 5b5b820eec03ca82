#pragma once

// The two kinds of WebSocket connection the service keeps, over a plain or a TLS stream: a
// device's link, and a page's push channel. Internal to the service; included by the HTTP
// session, which hands its connection over to them on an upgrade.

#include <fmt/format.h>

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/json/serialize.hpp>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "devservice/api.h"
#include "devservice/auth.h"
#include "devservice/server.h"
#include "kestro/core/utf8.h"

namespace kestro::devservice::internal {

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;

// What may wait for one device: frames beyond either bound are refused, and the command that
// made them is answered so.
constexpr std::size_t kMaxQueuedFrames = 1024;
constexpr std::size_t kMaxQueuedBytes = 16 * 1024 * 1024;
constexpr std::size_t kMaxDeviceFrameBytes = 1024 * 1024;

// The largest frame the service builds from a page's waiting messages, and the largest frame a
// page may send.
constexpr std::size_t kLiveFrameBytes = 256 * 1024;
// A page's first message after a quiet spell waits this long for others to share its frame:
// under a stream of uploads each page then takes tens of messages per write, not one.
constexpr auto kLiveFlushDelay = std::chrono::milliseconds(5);
// The kernel's send buffer of a page's socket: left to itself it grows to megabytes per page
// behind the service's own bound.
constexpr int kLiveSocketBuffer = 128 * 1024;
constexpr std::size_t kMaxPageFrameBytes = 4096;
constexpr std::uint16_t kTooSlow = 4000;

inline std::string clipFrame(std::string_view text) {
    if (text.size() <= 300) return std::string(text);
    return std::string(utf8Prefix(text, 300)) + "…";
}

// One device's WebSocket connection. The stream is touched only on the connection's strand;
// the frame queue and the closing flag are shared with senders on other threads under
// queueMutex_, so that send() can say at once whether a frame was queued.
template <class Stream>
class DeviceSession : public DeviceLink,
                      public std::enable_shared_from_this<DeviceSession<Stream>> {
  public:
    DeviceSession(Stream&& stream, ServiceCore& core, LinkRequest link, std::string target)
        : ws_(std::move(stream)), core_(core), link_(std::move(link)), target_(std::move(target)) {}

    void run(Request request) {
        request_ = std::move(request);
        beast::get_lowest_layer(ws_).expires_never();
        ws_.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
        ws_.set_option(websocket::stream_base::decorator([](websocket::response_type& res) {
            res.set(http::field::server, "kestro-devservice");
        }));
        ws_.read_message_max(kMaxDeviceFrameBytes);
        ws_.async_accept(request_, beast::bind_front_handler(&DeviceSession::onAccept,
                                                             this->shared_from_this()));
    }

    SendResult send(std::string text, FrameDone done) override {
        {
            std::lock_guard lock(queueMutex_);
            if (closing_) return SendResult::closing;
            if (queue_.size() >= kMaxQueuedFrames || queuedBytes_ + text.size() > kMaxQueuedBytes) {
                return SendResult::queueFull;
            }
            queuedBytes_ += text.size();
            queue_.push_back(Frame{std::move(text), std::move(done)});
            if (queue_.size() > 1) return SendResult::queued;
        }
        net::post(ws_.get_executor(), [self = this->shared_from_this()] { self->writeNext(); });
        return SendResult::queued;
    }

    void close(std::uint16_t code, std::string reason) override {
        // Frames not yet started will not be written once the close frame is on its way.
        std::deque<Frame> dropped;
        {
            std::lock_guard lock(queueMutex_);
            if (closing_) return;
            closing_ = true;
            dropOnCloseLocked(dropped);
        }
        failAll(dropped, "the connection was closed before the frame was written (" + reason + ")");
        net::post(ws_.get_executor(),
                  [self = this->shared_from_this(), code, reason = std::move(reason)]() {
                      if (!self->open_) return;
                      self->ws_.async_close(
                          websocket::close_reason(static_cast<websocket::close_code>(code), reason),
                          [self](beast::error_code) {});
                  });
    }

  private:
    struct Frame {
        std::string text;
        FrameDone done;
    };

    // Keeps the frame being written (the front, while a write is in flight) and moves the rest
    // to `dropped`.
    void dropOnCloseLocked(std::deque<Frame>& dropped) {
        const std::size_t keep = writing_ && !queue_.empty() ? 1 : 0;
        while (queue_.size() > keep) {
            queuedBytes_ -= queue_.back().text.size();
            dropped.push_front(std::move(queue_.back()));
            queue_.pop_back();
        }
    }

    static void failAll(std::deque<Frame>& frames, const std::string& why) {
        for (auto& f : frames) {
            if (f.done) f.done(why);
        }
    }

    void onAccept(beast::error_code ec) {
        if (ec) {
            core_.context->log(
                fmt::format("❌ GET {} → WebSocket handshake with device {} failed: {}",
                            redactTarget(target_), link_.deviceId, ec.message()));
            end("the handshake failed");
            return;
        }
        open_ = true;
        auto& context = *core_.context;
        context.links.attach(link_.deviceId, this->shared_from_this(), context.now());
        context.log(fmt::format("🔌 GET {} → 101, device {} connected", redactTarget(target_),
                                link_.deviceId));
        context.steering.deviceConnected(link_.deviceId);
        readNext();
    }

    void readNext() {
        ws_.async_read(buffer_,
                       beast::bind_front_handler(&DeviceSession::onRead, this->shared_from_this()));
    }

    void onRead(beast::error_code ec, std::size_t) {
        if (ec) {
            bool closedHere = false;
            {
                std::lock_guard lock(queueMutex_);
                closedHere = closing_;
            }
            const std::string why =
                ec == websocket::error::closed
                    ? std::string(closedHere ? "closed" : "closed by the device")
                    : ec.message();
            end("the device disconnected before the frame was written");
            core_.context->links.detach(link_.deviceId, this);
            core_.context->log(fmt::format("🔌 Device {} disconnected ({})", link_.deviceId, why));
            return;
        }
        // Devices send nothing the service acts on; what arrives is shown and dropped.
        if (ws_.got_text()) {
            core_.context->log(fmt::format("📩 Device {} sent: {}", link_.deviceId,
                                           clipFrame(beast::buffers_to_string(buffer_.data()))));
        } else {
            core_.context->log(
                fmt::format("📩 Device {} sent {} binary bytes", link_.deviceId, buffer_.size()));
        }
        buffer_.consume(buffer_.size());
        readNext();
    }

    // The connection is over: every frame still waiting fails with `why` (the one being
    // written, if any, learns its fate from its write).
    void end(const std::string& why) {
        std::deque<Frame> dropped;
        {
            std::lock_guard lock(queueMutex_);
            closing_ = true;
            dropOnCloseLocked(dropped);
        }
        failAll(dropped, why);
    }

    // On the strand, with one write in flight at most. The front frame stays in the queue
    // until written; frames added behind it do not move it (a deque keeps its elements).
    void writeNext() {
        const std::string* front = nullptr;
        {
            std::lock_guard lock(queueMutex_);
            if (queue_.empty()) {
                writing_ = false;
                return;
            }
            writing_ = true;
            front = &queue_.front().text;
        }
        ws_.text(true);
        ws_.async_write(net::buffer(*front), beast::bind_front_handler(&DeviceSession::onWrite,
                                                                       this->shared_from_this()));
    }

    void onWrite(beast::error_code ec, std::size_t) {
        Frame written;
        bool more = false;
        {
            std::lock_guard lock(queueMutex_);
            writing_ = false;
            if (queue_.empty()) return;  // ended meanwhile: the frame was failed there
            written = std::move(queue_.front());
            queue_.pop_front();
            queuedBytes_ -= written.text.size();
            more = !queue_.empty() && !ec && !closing_;
        }
        if (written.done) {
            written.done(
                ec ? std::optional<std::string>("writing to the device failed: " + ec.message())
                   : std::nullopt);
        }
        if (ec) {
            // The device is gone; the read side sees the same failure and ends the session.
            end("writing to the device failed: " + ec.message());
            return;
        }
        if (more) writeNext();
    }

    websocket::stream<Stream> ws_;
    ServiceCore& core_;
    LinkRequest link_;
    std::string target_;
    Request request_;
    beast::flat_buffer buffer_;
    bool open_ = false;
    std::mutex queueMutex_;
    std::deque<Frame> queue_;
    std::size_t queuedBytes_ = 0;
    bool writing_ = false;
    bool closing_ = false;
};

// One page's push channel. The hub pushes messages from any thread into a bounded queue under
// mutex_; the strand writes them, several per frame. See README.md for what happens when the
// page falls behind.
template <class Stream>
class LiveSession : public LiveSubscriber,
                    public std::enable_shared_from_this<LiveSession<Stream>> {
  public:
    LiveSession(Stream&& stream, ServiceCore& core)
        : ws_(std::move(stream)), core_(core), flushTimer_(ws_.get_executor()) {}

    void run(Request request) {
        request_ = std::move(request);
        beast::get_lowest_layer(ws_).expires_never();
        beast::error_code ignored;
        beast::get_lowest_layer(ws_).socket().set_option(
            net::socket_base::send_buffer_size(kLiveSocketBuffer), ignored);
        websocket::stream_base::timeout timeouts{};
        timeouts.handshake_timeout = std::chrono::seconds(30);
        timeouts.idle_timeout = std::chrono::seconds(60);
        timeouts.keep_alive_pings = true;
        ws_.set_option(timeouts);
        ws_.set_option(websocket::stream_base::decorator([](websocket::response_type& res) {
            res.set(http::field::server, "kestro-devservice");
            res.set(http::field::sec_websocket_protocol, kLiveProtocol);
        }));
        ws_.read_message_max(kMaxPageFrameBytes);
        ws_.async_accept(
            request_, beast::bind_front_handler(&LiveSession::onAccept, this->shared_from_this()));
    }

    void push(const std::shared_ptr<const std::string>& message) override {
        bool start = false;
        {
            std::lock_guard lock(mutex_);
            if (closing_ || awaitingSnapshot_) return;
            const auto& o = core_.context->options;
            if (queue_.size() >= o.liveQueueMessages ||
                bytes_ + message->size() > o.liveQueueBytes) {
                return overflowLocked();
            }
            queue_.push_back(message);
            bytes_ += message->size();
            start = !writing_;
            writing_ = writing_ || start;
        }
        if (start) {
            net::post(ws_.get_executor(), [self = this->shared_from_this()] {
                self->flushTimer_.expires_after(kLiveFlushDelay);
                self->flushTimer_.async_wait([self](beast::error_code ec) {
                    if (!ec) self->writeNext();
                });
            });
        }
    }

    void close(std::uint16_t code, const std::string& reason) override {
        {
            std::lock_guard lock(mutex_);
            if (closing_) return;
            closing_ = true;
            queue_.clear();
            bytes_ = 0;
        }
        closeOnStrand(code, reason);
    }

  private:
    void onAccept(beast::error_code ec) {
        if (ec) {
            core_.context->log("❌ GET /api/live → WebSocket handshake failed: " + ec.message());
            return;
        }
        // Subscribed before the snapshot is read, so that nothing published after it is missed;
        // what is published before it is dropped, and covered by the snapshot.
        core_.context->hub.add(this->shared_from_this());
        core_.context->log("🖥 GET /api/live → 101, a dashboard is following");
        sendSnapshot("connected");
        readNext();
    }

    // Too much waits: the page gets a fresh snapshot in place of what it missed, or, when even
    // the previous snapshot has not left yet, is closed.
    void overflowLocked() {
        queue_.clear();
        bytes_ = 0;
        if (snapshotWaiting_) {
            closing_ = true;
            net::post(ws_.get_executor(), [self = this->shared_from_this()] {
                self->core_.context->log("⚠️ A dashboard fell behind twice in a row: closed");
                self->closeOnStrand(kTooSlow, "too slow: the page did not read its messages");
            });
            return;
        }
        awaitingSnapshot_ = true;
        snapshotWaiting_ = false;
        net::post(ws_.get_executor(),
                  [self = this->shared_from_this()] { self->sendSnapshot("behind"); });
    }

    // On the strand. The gate opens before the snapshot is read: a message published in
    // between is queued behind the snapshot, which goes to the front, so the page applies
    // nothing older than the snapshot after it.
    void sendSnapshot(const char* reason) {
        {
            std::lock_guard lock(mutex_);
            if (closing_) return;
            awaitingSnapshot_ = false;
        }
        auto snapshot = std::make_shared<const std::string>(
            boost::json::serialize(core_.context->snapshot(reason)));
        bool start = false;
        {
            std::lock_guard lock(mutex_);
            if (closing_) return;
            queue_.push_front(snapshot);
            bytes_ += snapshot->size();
            snapshot_ = snapshot.get();
            snapshotWaiting_ = true;
            start = !writing_;
            writing_ = true;
        }
        if (start) writeNext();
    }

    void readNext() {
        ws_.async_read(buffer_,
                       beast::bind_front_handler(&LiveSession::onRead, this->shared_from_this()));
    }

    void onRead(beast::error_code ec, std::size_t) {
        if (ec) {
            {
                std::lock_guard lock(mutex_);
                closing_ = true;
                queue_.clear();
                bytes_ = 0;
            }
            core_.context->hub.remove(this);
            core_.context->log(
                "🖥 A dashboard stopped following (" +
                (ec == websocket::error::closed ? std::string("closed") : ec.message()) + ")");
            return;
        }
        buffer_.consume(buffer_.size());
        if (!ws_.got_text()) {
            close(1003, "the channel takes no messages");
            return;
        }
        push(std::make_shared<const std::string>(boost::json::serialize(boost::json::object{
            {"type", "error"},
            {"error", "the push channel takes no messages from the page; use the API"}})));
        readNext();
    }

    void closeOnStrand(std::uint16_t code, std::string reason) {
        net::post(ws_.get_executor(),
                  [self = this->shared_from_this(), code, reason = std::move(reason)] {
                      self->ws_.async_close(
                          websocket::close_reason(static_cast<websocket::close_code>(code), reason),
                          [self](beast::error_code) {});
                  });
    }

    // On the strand: writes what waits, up to kLiveFrameBytes joined by line feeds, in one
    // frame.
    void writeNext() {
        {
            std::lock_guard lock(mutex_);
            if (queue_.empty() || closing_) {
                writing_ = false;
                return;
            }
            frame_.clear();
            while (!queue_.empty() &&
                   (frame_.empty() || frame_.size() + queue_.front()->size() <= kLiveFrameBytes)) {
                const auto& message = queue_.front();
                if (message.get() == snapshot_) {
                    snapshotWaiting_ = false;
                    snapshot_ = nullptr;
                }
                if (!frame_.empty()) frame_ += '\n';
                frame_ += *message;
                bytes_ -= message->size();
                queue_.pop_front();
            }
        }
        ws_.text(true);
        ws_.async_write(net::buffer(frame_),
                        beast::bind_front_handler(&LiveSession::onWrite, this->shared_from_this()));
    }

    void onWrite(beast::error_code ec, std::size_t) {
        if (ec) {
            // The page is gone; the read side ends the session.
            std::lock_guard lock(mutex_);
            closing_ = true;
            writing_ = false;
            queue_.clear();
            bytes_ = 0;
            return;
        }
        writeNext();
    }

    websocket::stream<Stream> ws_;
    ServiceCore& core_;
    net::steady_timer flushTimer_;
    Request request_;
    beast::flat_buffer buffer_;
    std::string frame_;  // the frame being written; strand only
    std::mutex mutex_;
    std::deque<std::shared_ptr<const std::string>> queue_;
    std::size_t bytes_ = 0;
    bool writing_ = false;  // a write is in flight or posted
    bool closing_ = false;
    bool awaitingSnapshot_ = true;  // everything is dropped until the snapshot is read
    bool snapshotWaiting_ = false;  // the snapshot is queued and not yet taken into a frame
    const std::string* snapshot_ = nullptr;
};

}  // namespace kestro::devservice::internal
