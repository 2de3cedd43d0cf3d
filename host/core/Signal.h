#pragma once
// Signals and slots of the host. A signal calls its connected functions in connection order.
// Emission rules:
//  - a slot that emits its own signal does not recurse (unless a repeat was asked for);
//  - connections made during an emission wait for the next one;
//  - disconnect during an emission only deactivates; the record goes at the outermost exit;
//  - a throwing slot leaves the signal consistent and the exception goes on.
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace Merivane {

class SignalBase;
class SignalReceiver;

class SignalConnection {
 public:
  SignalConnection(SignalBase* signal, const SignalReceiver* receiver) : signal_(signal), receiver_(receiver) {}
  void disconnect();
  bool isActive() const { return active_.load(); }
  void setBlocked(bool blocked) { blocked_.store(blocked); }
  bool isBlocked() const { return blocked_.load(); }

 private:
  friend class SignalBase;
  friend class SignalReceiver;
  std::atomic<SignalBase*> signal_;
  const SignalReceiver* receiver_;
  std::atomic<bool> active_{true};
  std::atomic<bool> blocked_{false};
};

// Owns connections; its destructor disconnects them so that a destroyed receiver is never called.
class SignalReceiver {
 public:
  SignalReceiver() = default;
  SignalReceiver(const SignalReceiver&) {}
  SignalReceiver& operator=(const SignalReceiver&) { return *this; }
  virtual ~SignalReceiver();

  void addConnection(std::shared_ptr<SignalConnection> connection) const;
  void removeConnection(SignalConnection* connection) const;
  void disconnectAll();

 private:
  mutable std::mutex mutex_;
  mutable std::vector<std::shared_ptr<SignalConnection>> connections_;
};

class SignalBase {
 public:
  SignalBase() = default;
  SignalBase(const SignalBase&) = delete;
  SignalBase& operator=(const SignalBase&) = delete;
  virtual ~SignalBase();

  void setBlocked(bool blocked) { blocked_ = blocked; }
  bool isBlocked() const { return blocked_; }
  // The next nested emission from inside a slot runs instead of returning.
  void requestRepeat() { repeat_ = true; }
  void disconnectAll();
  size_t connectionCount() const;

 protected:
  struct Record {
    std::shared_ptr<SignalConnection> connection;
    std::shared_ptr<void> slot;  // std::function<void(Args...)> of the derived signal
  };

  std::shared_ptr<SignalConnection> addRecord(const SignalReceiver* receiver, std::shared_ptr<void> slot);
  // Runs `call` for every active, unblocked record, applying the emission rules.
  void emitImpl(void (*call)(void* slot, void* args), void* args);

  virtual void lock() {}
  virtual void unlock() {}

 private:
  friend class SignalConnection;
  void onDisconnect(SignalConnection* connection);
  void purge();

  std::vector<Record> records_;
  std::vector<Record> pending_;
  const Record* running_ = nullptr;
  int depth_ = 0;
  bool blocked_ = false;
  bool repeat_ = false;
};

template <typename... Args>
class SignalDebouncer {};

template <bool Locked>
class SignalMutexProxy {
 protected:
  void lockMutex() {}
  void unlockMutex() {}
};

template <>
class SignalMutexProxy<true> {
 protected:
  void lockMutex() { mutex_.lock(); }
  void unlockMutex() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

template <bool Locked, typename... Args>
class SignalImpl : public SignalBase, public SignalDebouncer<Args...>, public SignalMutexProxy<Locked> {
 public:
  using Slot = std::function<void(Args...)>;

  std::shared_ptr<SignalConnection> connect(Slot slot) { return connect(nullptr, std::move(slot)); }

  std::shared_ptr<SignalConnection> connect(const SignalReceiver* receiver, Slot slot) {
    return addRecord(receiver, std::make_shared<Slot>(std::move(slot)));
  }

  template <typename T, typename Method>
    requires std::is_member_function_pointer_v<Method>
  std::shared_ptr<SignalConnection> connect(const T* object, Method method) {
    T* target = const_cast<T*>(object);
    return connect(object, Slot([target, method](Args... args) { (target->*method)(args...); }));
  }

  void emitSignal(Args... args) {
    std::tuple<Args&...> packed(args...);
    emitImpl(
        [](void* slot, void* packedArgs) {
          std::apply(*static_cast<Slot*>(slot), *static_cast<std::tuple<Args&...>*>(packedArgs));
        },
        &packed);
  }

 protected:
  void lock() override { this->lockMutex(); }
  void unlock() override { this->unlockMutex(); }
};

template <typename... Args>
using Signal = SignalImpl<false, Args...>;
template <typename... Args>
using LockedSignal = SignalImpl<true, Args...>;

// Blocks a signal while it lives.
class SignalBlocker {
 public:
  explicit SignalBlocker(SignalBase& signal) : signal_(signal), was_(signal.isBlocked()) { signal_.setBlocked(true); }
  ~SignalBlocker() { signal_.setBlocked(was_); }
  SignalBlocker(const SignalBlocker&) = delete;
  SignalBlocker& operator=(const SignalBlocker&) = delete;

 private:
  SignalBase& signal_;
  bool was_;
};

}  // namespace Merivane
