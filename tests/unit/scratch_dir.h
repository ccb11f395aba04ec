/* A directory of its own for one test, removed with what is in it. */
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/time.h>

class scratch_dir
{
public:
    scratch_dir()
    {
        char name[] = "/tmp/kov-ut-XXXXXX";
        path = mkdtemp(name);
    }
    ~scratch_dir() { std::filesystem::remove_all(path); }
    scratch_dir(const scratch_dir&) = delete;
    scratch_dir& operator=(const scratch_dir&) = delete;

    std::string at(const std::string& name) const { return path + "/" + name; }
    bool has(const std::string& name) const { return std::filesystem::exists(at(name)); }
    std::string put(const std::string& name, const std::string& text = "") const
    {
        std::ofstream(at(name)) << text;
        return at(name);
    }

    std::string path;
};

/* Gives a file an age counted from now, a second of the wall clock. */
inline void set_age(const std::string& path, time_t now, long age)
{
    const timeval tv[2] = {{now - age, 0}, {now - age, 0}};
    utimes(path.c_str(), tv);
}
