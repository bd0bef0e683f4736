// SPDX-License-Identifier: MIT
#include "notes.h"

#include <utility>

#include "support.h"

namespace velta::python {

void Signal::Raise() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    value_.fetch_add(1, std::memory_order_release);
  }
  changed_.notify_all();
}

bool Signal::Wait(std::uint64_t seen, std::chrono::nanoseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return value_.load(std::memory_order_relaxed) != seen; });
}

namespace {
std::atomic<Notes*> notes{new Notes};
}

Notes& Notes::Of() { return *notes.load(); }

void Notes::Renew() { notes = new Notes; }  // a thread that is gone may have held what the old one needs

std::uint64_t Notes::NewToken() {
  static std::atomic<std::uint64_t> last{0};
  return ++last;
}

void Notes::Log(bool is_error, std::string text) {
  if (lines_.fetch_add(1) >= kMostLines) {  // nobody reads them
    --lines_;
    return;
  }
  auto* const note = new Note;
  note->is_error = is_error;
  note->text = std::move(text);
  Push(note);
}

void Notes::Done(std::uint64_t token) {
  auto* const note = new Note;
  note->token = token;
  Push(note);
}

void Notes::Push(Note* note) {
  note->next = newest_.load(std::memory_order_relaxed);
  while (!newest_.compare_exchange_weak(note->next, note)) {
  }
  signal_.Raise();
}

Note* Notes::TakeAll() {
  Note* oldest = nullptr;
  for (Note* note = newest_.exchange(nullptr); note != nullptr;) {
    Note* const next = note->next;
    note->next = oldest;
    oldest = note;
    if (note->token == 0) --lines_;
    note = next;
  }
  return oldest;
}

bool Notes::Wait(std::chrono::nanoseconds timeout) {
  const std::uint64_t seen = signal_.Value();
  if (IsEmpty() && !is_over_) signal_.Wait(seen, timeout);
  return !is_over_;
}

void Notes::End() {
  is_over_ = true;
  signal_.Raise();
}

void DeliverNotes() {
  if (Notes::Of().IsEmpty()) return;
  py::list list;
  for (Note* note = Notes::Of().TakeAll(); note != nullptr;) {
    list.append(py::make_tuple(note->token, note->is_error,
                               py::reinterpret_steal<py::object>(PyUnicode_DecodeUTF8(
                                   note->text.data(), static_cast<py::ssize_t>(note->text.size()), "replace"))));
    delete std::exchange(note, note->next);
  }
  py::module_::import("velta._notes").attr("deliver")(list);
}

}  // namespace velta::python
