/* Guards for resources that live as long as a function. They are never stored in records. */
#pragma once

#include <memory>
#include <utility>

/* Calls f when the scope ends, unless release() was called: from then on somebody else owns the resource. */
template <class F>
class [[nodiscard]] scope_guard
{
public:
    explicit scope_guard(F f) noexcept : f_(std::move(f)) {}
    ~scope_guard()
    {
        if (armed_)
            f_();
    }
    scope_guard(const scope_guard&) = delete;
    scope_guard& operator=(const scope_guard&) = delete;
    void release() noexcept { armed_ = false; }

private:
    F f_;
    bool armed_ = true;
};

/* Makes a C release function a deleter: using file_ptr = std::unique_ptr<FILE, releaser<fclose>>; */
template <auto Fn>
struct releaser {
    template <class T>
    void operator()(T* p) const noexcept
    {
        Fn(p);
    }
};
