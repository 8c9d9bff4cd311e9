#include "facilities.hpp"

#include <array>

#include "fields.hpp"
#include "objects.hpp"
#include "waiting.hpp"

namespace decision_bounds::python {
namespace {

/// Enters a lock of the host's own as a `with` block would, or by acquire where it cannot.
void enter_by_name(const State& state, PyObject* lock) {
  Owned enter;
  try {
    enter = get(lock, state.name(Name::__enter__));
  } catch (RaisedError& error) {
    if (!PyErr_GivenExceptionMatches(error.value(), PyExc_AttributeError)) throw;
    enter = get(lock, state.name(Name::acquire));
  }
  call(enter.get());
}

void exit_by_name(const State& state, PyObject* lock) {
  Owned exit;
  try {
    exit = get(lock, state.name(Name::__exit__));
  } catch (RaisedError& error) {
    if (!PyErr_GivenExceptionMatches(error.value(), PyExc_AttributeError)) throw;
    call_method(lock, state.name(Name::release));
    return;
  }
  call(exit.get(), Py_None, Py_None, Py_None);
}

/// Whether the field's lock is one of the interpreter's own, its methods at hand.
bool plain(const State& state, LockField& field) {
  if (Py_TYPE(field.object) != state.lock) return false;
  if (field.bound == field.object) return true;
  Owned acquire = get(field.object, state.name(Name::acquire));
  Owned release = get(field.object, state.name(Name::release));
  Owned locked = get(field.object, state.name(Name::locked));
  Owned::steal(std::exchange(field.acquire, acquire.release()));
  Owned::steal(std::exchange(field.release, release.release()));
  Owned::steal(std::exchange(field.locked, locked.release()));
  Owned::steal(std::exchange(field.bound, Owned::copy(field.object).release()));
  return true;
}

std::uint64_t version_of(PyObject* dict) noexcept {
  return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag;
}

/// Reads the attributes of a threading.Condition anew. False where an attribute of its own stands
/// in for notify_all, which must then be called whether or not anyone waits.
bool bind(const State& state, ConditionField& field) {
  const Owned condition = Owned::copy(field.object);
  Owned dict = checked([&] { return PyObject_GenericGetDict(condition.get(), nullptr); });
  Owned acquire = get(condition.get(), state.name(Name::acquire));
  Owned release = get(condition.get(), state.name(Name::release));
  Owned waiters = get(condition.get(), state.name(Name::_waiters));
  const int spied = PyDict_Contains(dict.get(), state.name(Name::notify_all));
  if (spied < 0) throw_raised();
  if (spied == 1) return false;
  field.version = version_of(dict.get());
  field.reentrant = nullptr;
  if (PyCFunction_Check(acquire.get())) {
    PyObject* lock = PyCFunction_GET_SELF(acquire.get());
    if (lock != nullptr && Py_TYPE(lock) == state.transparent_lock) field.reentrant = lock;
  }
  Owned::steal(std::exchange(field.dict, dict.release()));
  Owned::steal(std::exchange(field.acquire, acquire.release()));
  Owned::steal(std::exchange(field.release, release.release()));
  Owned::steal(std::exchange(field.waiters, waiters.release()));
  Owned::steal(std::exchange(field.bound, Owned::copy(condition.get()).release()));
  return true;
}

bool plain(const State& state, ConditionField& field) {
  if (Py_TYPE(field.object) != state.condition.type ||
      attributes_version(state.condition.type) != state.condition.version) {
    return false;
  }
  if (field.bound == field.object && version_of(field.dict) == field.version) return true;
  return bind(state, field);
}

/// How CPython 3.11 lays out a re-entrant lock, which has no method that says whether it is free.
struct ReentrantLock {
  PyObject_HEAD
  PyThread_type_lock lock;
  unsigned long owner;
  unsigned long count;
  PyObject* weakrefs;
};

/// Whether nobody holds the lock. True for as long as this thread runs no Python code.
bool is_free(PyObject* lock) noexcept {
  return lock != nullptr && reinterpret_cast<const ReentrantLock*>(lock)->count == 0;
}

constexpr int interrupts_put_off = 100;

/// The absorbed error as a Python exception; None where there is no exception to show.
Owned python_error(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (RaisedError& raised) {
    return Owned::copy(raised.value());
  } catch (const std::exception& other) {
    const Owned text = to_python(std::string(other.what()));
    return call(PyExc_RuntimeError, text.get());
  }
}

Owned python_argument(const LogArgument& argument) {
  if (const auto* number = std::get_if<double>(&argument)) return to_python(*number);
  return to_python(std::string(std::get<std::string_view>(argument)));
}

}  // namespace

PyTypeObject* transparent_lock_type(const State& state) {
  const Owned condition = call(reinterpret_cast<PyObject*>(state.condition.type));
  const Owned method = get(condition.get(), state.name(Name::acquire));
  if (!PyCFunction_Check(method.get())) return nullptr;
  PyObject* lock = PyCFunction_GET_SELF(method.get());
  if (lock == nullptr || Py_TYPE(lock)->tp_basicsize != sizeof(ReentrantLock)) return nullptr;
  const auto shows = [lock](unsigned long count, unsigned long owner) {
    const auto* layout = reinterpret_cast<const ReentrantLock*>(lock);
    return layout->count == count && layout->owner == owner;
  };
  const unsigned long self = PyThread_get_thread_ident();
  bool as_expected = shows(0, 0);
  call(method.get());
  as_expected = as_expected && shows(1, self);
  call(method.get());
  as_expected = as_expected && shows(2, self);
  call_method(lock, state.name(Name::release));
  as_expected = as_expected && shows(1, self);
  call_method(lock, state.name(Name::release));
  as_expected = as_expected && shows(0, 0);
  return as_expected ? Py_TYPE(lock) : nullptr;
}

int visit(const LockField& field, visitproc visit, void* arg) {
  Py_VISIT(field.object);
  Py_VISIT(field.bound);
  Py_VISIT(field.acquire);
  Py_VISIT(field.release);
  Py_VISIT(field.locked);
  return 0;
}

int visit(const ConditionField& field, visitproc visit, void* arg) {
  Py_VISIT(field.object);
  Py_VISIT(field.bound);
  Py_VISIT(field.acquire);
  Py_VISIT(field.release);
  Py_VISIT(field.waiters);
  Py_VISIT(field.dict);
  return 0;
}

void clear(LockField& field) noexcept {
  clear(field.object);
  clear(field.bound);
  clear(field.acquire);
  clear(field.release);
  clear(field.locked);
}

void clear(ConditionField& field) noexcept {
  clear(field.object);
  clear(field.bound);
  clear(field.acquire);
  clear(field.release);
  clear(field.waiters);
  clear(field.dict);
}

void HostLock::lock() {
  PyObject* lock = set_or_raise(field_.object, self_, "_lock");
  if (!plain(state_, field_)) {
    taken_ = Owned::copy(lock);
    enter_by_name(state_, lock);
    return;
  }
  if (section_ == Section::brief && !truth(call_builtin(field_.locked, state_.no_arguments)))
    return;
  release_ = Owned::copy(field_.release);
  call_builtin(Owned::copy(field_.acquire).get(), state_.no_arguments);
}

void HostLock::unlock() {
  if (release_) {
    call_builtin(release_.get(), state_.no_arguments);
  } else if (taken_) {
    exit_by_name(state_, taken_.get());
  }
}

void HostCondition::lock() {
  for (int interrupts = 0;; ++interrupts) {
    try {
      enter();
      return;
    } catch (RaisedError&) {
      if (locking_ == Locking::may_fail) throw;
      if (!kept_) kept_ = std::current_exception();
      return;
    } catch (RaisedInterrupt&) {
      if (locking_ == Locking::may_fail) throw;
      if (!kept_) kept_ = std::current_exception();
      if (interrupts == interrupts_put_off) return;
    }
  }
}

void HostCondition::enter() {
  locked_ = Owned::copy(set_or_raise(field_.object, self_, "_changed"));
  if (plain(state_, field_)) {
    release_ = Owned::copy(field_.release);
    if (section_ == Section::brief && is_free(field_.reentrant)) {
      hold_ = Hold::brief;
      return;
    }
    acquire();
  } else {
    enter_by_name(state_, locked_.get());
  }
  hold_ = Hold::taken;
}

void HostCondition::acquire() const {
  call_builtin(Owned::copy(field_.acquire).get(), state_.no_arguments);
}

bool HostCondition::take_now() {
  if (hold_ != Hold::brief) return false;
  acquire();
  hold_ = Hold::taken;
  return true;
}

void HostCondition::unlock() {
  if (std::exchange(hold_, Hold::none) != Hold::taken) return;
  if (release_) {
    call_builtin(release_.get(), state_.no_arguments);
  } else {
    exit_by_name(state_, locked_.get());
  }
}

void HostCondition::wait_for(double seconds) {
  const Owned timeout = to_python(seconds);
  take_now();
  try {
    call_method(locked_.get(), state_.name(Name::wait), timeout.get());
  } catch (...) {
    // A wait that fails may have let the lock go without taking it back.
    if (!owned()) hold_ = Hold::none;
    throw;
  }
}

bool HostCondition::owned() const {
  try {
    return truth(call_method(locked_.get(), state_.name(Name::_is_owned)));
  } catch (Raised&) {
    return true;  // it cannot say
  }
}

void HostCondition::notify_all() {
  if (hold_ == Hold::none) return;  // its waiters look again by themselves
  if (release_ && field_.bound == locked_.get()) {
    const Py_ssize_t waiters = checked_count([this] { return PyObject_Size(field_.waiters); });
    if (waiters == 0) return;
    take_now();
  }
  call_method(locked_.get(), state_.name(Name::notify_all));
}

void HostCondition::finish() const {
  if (kept_) std::rethrow_exception(kept_);
}

void HostLogger::warning(std::string_view format, std::span<const LogArgument> arguments,
                         std::exception_ptr error) {
  const Owned logger = global(state_, Name::logger, state_.logger);
  const Owned message = to_python(std::string(format));
  std::array<Owned, 2> texts;
  std::array<PyObject*, 5> all{logger.get(), message.get()};
  std::size_t count = 2;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    texts.at(i) = python_argument(arguments[i]);
    all.at(count++) = texts.at(i).get();
  }
  Owned caught, keyword;
  if (error) {
    caught = python_error(error);
    keyword = checked([this] { return PyTuple_Pack(1, state_.name(Name::exc_info)); });
    all.at(count) = caught.get();
  }
  checked([&] {
    return PyObject_VectorcallMethod(state_.name(Name::warning), all.data(), count, keyword.get());
  });
}

double poll_seconds(const State& state) {
  const Owned fallback = to_python(internal::poll_s);
  return as_double(global(state, Name::_POLL_S, fallback.get()).get(), "_POLL_S");
}

bool HostHeld::is_plain() const noexcept {
  return field_ != nullptr && Py_TYPE(field_) == state_.held.type &&
         untouched(reinterpret_cast<HeldObject*>(field_), state_.held);
}

internal::Held* HostHeld::record() {
  set_or_raise(field_, self_, name_);
  return is_plain() ? &reinterpret_cast<HeldObject*>(field_)->record : nullptr;
}

bool HostHeld::admits(double share, double used, double limit) {
  if (const internal::Held* held = record()) return held->admits(share, used, limit);
  const Owned object = Owned::copy(field_);
  const Owned first = to_python(share);
  const Owned second = to_python(used);
  const Owned third = to_python(limit);
  return truth(
      call_method(object.get(), state_.name(Name::admits), first.get(), second.get(), third.get()));
}

void HostHeld::take(double share) {
  if (internal::Held* held = record()) return held->take(share);
  const Owned object = Owned::copy(field_);
  const Owned amount = to_python(share);
  call_method(object.get(), state_.name(Name::take), amount.get());
}

void HostHeld::give_back(double share) {
  if (internal::Held* held = record()) return held->give_back(share);
  const Owned object = Owned::copy(field_);
  const Owned amount = to_python(share);
  call_method(object.get(), state_.name(Name::give_back), amount.get());
}

}  // namespace decision_bounds::python
