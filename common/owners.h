// Owners for everything that a C interface hands out, and the helper that lets an owner receive an out
// pointer.
//
// An owner is empty or owns one thing, which it releases when it goes; each module names its own beside the
// type's free function: using node_ptr = owner<acd_node_t, acd_free_node>;
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <unistd.h>
#include <utility>

template <auto Release>
struct releaser {
    template <class T>
    void operator()(T* thing) const
    {
        Release(thing);
    }
};

// Owns a T that Release frees; Release is never called with null.
template <class T, auto Release>
using owner = std::unique_ptr<T, releaser<Release>>;

using string_ptr = owner<char, std::free>;
using file_ptr = owner<FILE, std::fclose>;

// A record of zeros, of a kind whose release ends with free(); null when memory ran out.
template <class Record>
Record* new_record()
{
    return static_cast<Record*>(std::calloc(1, sizeof(Record)));
}

// Receives the result of a call that takes a pointer to a pointer: acd_fs_get_node(path, out(node)).
// The owner holds the new thing as soon as the full expression ends; what it held before is released then.
template <class Owner>
class out_param
{
public:
    explicit out_param(Owner& target) : target_(target) {}
    out_param(const out_param&) = delete;
    out_param& operator=(const out_param&) = delete;
    ~out_param() { target_.reset(raw_); }
    operator typename Owner::pointer *() { return &raw_; }

private:
    Owner& target_;
    typename Owner::pointer raw_ = nullptr;
};

template <class Owner>
out_param<Owner> out(Owner& target)
{
    return out_param<Owner>(target);
}

// Owns an open file descriptor; -1 is empty.
class fd_owner
{
public:
    fd_owner() = default;
    explicit fd_owner(int fd) : fd_(fd) {}
    fd_owner(fd_owner&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    fd_owner& operator=(fd_owner&& other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~fd_owner()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};
