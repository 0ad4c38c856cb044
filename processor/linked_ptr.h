// linked_ptr: shared ownership without a reference count and without allocations. For objects
// stored in the address containers, which copy their entries. The resolver's own entries are
// values.
//
// All linked_ptrs to one object form a ring: a circular singly linked list through the pointers
// themselves. The last one to leave deletes the object. Copying and destroying walk the ring, so
// both are linear in the number of owners; intended for a few owners per object.
//
// Not safe for concurrent use in any form: copying modifies the ring of the source, even if that is
// const.

#pragma once

namespace google_breakpad {

// The link of one pointer in the ring.
class linked_ptr_internal {
 public:
  // Starts a ring of one member.
  void join_new() { next_ = this; }

  // Joins the ring of `other`.
  void join(const linked_ptr_internal* other) {
    const linked_ptr_internal* last = other;
    while (last->next_ != other) last = last->next_;
    last->next_ = this;
    next_ = other;
  }

  // Leaves the ring. Returns true if this was its only member. Must be joined again before further
  // use.
  bool depart() {
    if (next_ == this) return true;
    const linked_ptr_internal* before = next_;
    while (before->next_ != this) before = before->next_;
    before->next_ = next_;
    return false;
  }

 private:
  mutable const linked_ptr_internal* next_;
};

template <typename T>
class linked_ptr {
 public:
  using element_type = T;

  // Takes ownership of `ptr`, which may be null and must have no other owner.
  explicit linked_ptr(T* ptr = nullptr) : value_(ptr) { link_.join_new(); }
  ~linked_ptr() { leave(); }

  linked_ptr(const linked_ptr& other) { copy(&other); }
  template <typename U>
  linked_ptr(const linked_ptr<U>& other) {  // NOLINT: implicit, like the conversion of raw pointers
    copy(&other);
  }
  linked_ptr(linked_ptr&& other) noexcept {
    copy(&other);
    other.reset();
  }

  linked_ptr& operator=(const linked_ptr& other) {
    if (&other != this) {
      leave();
      copy(&other);
    }
    return *this;
  }
  template <typename U>
  linked_ptr& operator=(const linked_ptr<U>& other) {
    leave();
    copy(&other);
    return *this;
  }
  linked_ptr& operator=(linked_ptr&& other) noexcept {
    if (&other != this) {
      leave();
      copy(&other);
      other.reset();
    }
    return *this;
  }

  // Releases the current object and takes ownership of `ptr`.
  void reset(T* ptr = nullptr) {
    leave();
    value_ = ptr;
    link_.join_new();
  }

  T* get() const { return value_; }
  T* operator->() const { return value_; }
  T& operator*() const { return *value_; }

  // Returns the object without deleting it and becomes null, even if there are other owners.
  T* release() {
    link_.depart();
    T* value = value_;
    value_ = nullptr;
    link_.join_new();
    return value;
  }

  bool operator==(const T* ptr) const { return value_ == ptr; }
  template <typename U>
  bool operator==(const linked_ptr<U>& other) const {
    return value_ == other.get();
  }

 private:
  template <typename U>
  friend class linked_ptr;

  void leave() {
    if (link_.depart()) delete value_;
  }

  template <typename U>
  void copy(const linked_ptr<U>* other) {
    value_ = other->get();
    if (value_ != nullptr) {
      link_.join(&other->link_);
    } else {
      link_.join_new();
    }
  }

  T* value_;
  linked_ptr_internal link_;
};

// A linked_ptr that takes ownership of `ptr`.
template <typename T>
linked_ptr<T> make_linked_ptr(T* ptr) {
  return linked_ptr<T>(ptr);
}

}  // namespace google_breakpad
