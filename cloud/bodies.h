// The contents of files, one plain file each, below a folder of the store's.
//
// A body is written while it arrives, so that its size does not matter, and belongs to the body_writer until
// keep(): an upload that fails leaves nothing behind, nor does one that the end of the server cuts off.
// Without a store the folder is a private one in the temporary directory that is removed at the end.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

struct evp_md_ctx_st;

namespace kxcloud
{

// What a body became: empty contents have no file and an empty name.
struct body_t {
    std::string name;
    std::string md5; // hexadecimal
    int64_t size = 0;
};

class bodies
{
public:
    explicit bodies(const std::string& store); // empty: a temporary folder
    ~bodies();
    bodies(const bodies&) = delete;
    bodies& operator=(const bodies&) = delete;

    std::string path_of(const std::string& name) const;
    std::string incoming() const { return folder_ + "/incoming/"; }
    void remove(const std::string& name) const;

private:
    std::string folder_;
    bool temporary_;
};

class body_writer
{
public:
    explicit body_writer(const bodies& where);
    ~body_writer();
    body_writer(const body_writer&) = delete;
    body_writer& operator=(const body_writer&) = delete;

    void write(const char* data, size_t size); // throws when the disk does not take it
    const body_t& finish();                    // no more writes after this; the body stands in its place
    void keep() { kept_ = true; }

private:
    const bodies& where_;
    body_t body_;
    int fd_ = -1;
    bool kept_ = false;
    std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st*)> digest_;
};

} // namespace kxcloud
