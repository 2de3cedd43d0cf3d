#include "Signal.h"

#include <algorithm>

namespace Merivane {

void SignalConnection::disconnect() {
  if (!active_.exchange(false)) return;
  if (SignalBase* s = signal_.load()) s->onDisconnect(this);
  if (receiver_) receiver_->removeConnection(this);
}

SignalReceiver::~SignalReceiver() { disconnectAll(); }

void SignalReceiver::addConnection(std::shared_ptr<SignalConnection> connection) const {
  std::lock_guard lock(mutex_);
  connections_.push_back(std::move(connection));
}

void SignalReceiver::removeConnection(SignalConnection* connection) const {
  std::lock_guard lock(mutex_);
  std::erase_if(connections_, [connection](auto& c) { return c.get() == connection; });
}

void SignalReceiver::disconnectAll() {
  std::vector<std::shared_ptr<SignalConnection>> connections;
  {
    std::lock_guard lock(mutex_);
    connections.swap(connections_);
  }
  for (auto& c : connections) {
    c->receiver_ = nullptr;  // we are already out of our own list
    c->disconnect();
  }
}

SignalBase::~SignalBase() {
  // Receivers may outlive the signal: cut their way back to it.
  for (auto* list : {&records_, &pending_})
    for (auto& r : *list) {
      r.connection->signal_.store(nullptr);
      r.connection->active_.store(false);
    }
}

std::shared_ptr<SignalConnection> SignalBase::addRecord(const SignalReceiver* receiver, std::shared_ptr<void> slot) {
  auto connection = std::make_shared<SignalConnection>(this, receiver);
  lock();
  // Connections made during an emission are kept aside until the outermost emission ends.
  (depth_ > 0 ? pending_ : records_).push_back(Record{connection, std::move(slot)});
  unlock();
  if (receiver) receiver->addConnection(connection);
  return connection;
}

void SignalBase::onDisconnect(SignalConnection*) {
  lock();
  if (depth_ == 0) purge();
  unlock();
}

void SignalBase::purge() {
  auto inactive = [](const Record& r) { return !r.connection->isActive(); };
  std::erase_if(records_, inactive);
  std::erase_if(pending_, inactive);
}

void SignalBase::disconnectAll() {
  lock();
  std::vector<std::shared_ptr<SignalConnection>> all;
  for (auto* list : {&records_, &pending_})
    for (auto& r : *list) all.push_back(r.connection);
  unlock();
  for (auto& c : all) c->disconnect();
}

size_t SignalBase::connectionCount() const {
  size_t n = 0;
  for (auto* list : {&records_, &pending_})
    for (auto& r : *list) n += r.connection->isActive() ? 1 : 0;
  return n;
}

void SignalBase::emitImpl(void (*call)(void*, void*), void* args) {
  lock();
  struct Unlock {
    SignalBase* s;
    ~Unlock() { s->unlock(); }
  } unlockOnExit{this};

  if (blocked_) return;
  if (running_ && running_->connection->isActive() && !running_->connection->isBlocked() && !repeat_) return;
  repeat_ = false;

  const Record* outer = running_;
  ++depth_;
  // Restores the running record and, at the outermost level, merges and purges, also when a
  // slot throws.
  struct Restore {
    SignalBase* s;
    const Record* outer;
    ~Restore() {
      s->running_ = outer;
      if (--s->depth_ == 0) {
        for (auto& r : s->pending_) s->records_.push_back(std::move(r));
        s->pending_.clear();
        s->purge();
      }
    }
  } restore{this, outer};

  // records_ does not grow or shrink while depth_ > 0, so indices and addresses stay valid.
  const size_t n = records_.size();
  for (size_t i = 0; i < n; ++i) {
    const Record& r = records_[i];
    if (!r.connection->isActive() || r.connection->isBlocked()) continue;
    running_ = &r;
    call(r.slot.get(), args);
  }
}

}  // namespace Merivane
