/* Records written while a test runs, as one text. The log goes back to standard error and to its levels afterwards. */
#pragma once

#include "log.h"
#include "timeop.h"

#include <cstdio>
#include <cstdlib>
#include <string>

class caught_log
{
public:
    explicit caught_log(int mod = 0, int level = DEBUG_level) : mod_(mod), old_level_(g_mod_ll[mod])
    {
        g_mod_ll[mod] = level;
        fp_ = open_memstream(&buf_, &len_);
        log_default(g_log, fp_);
        old_format_ = g_log->time_format;
        log_timefmt(g_log, f_NO_TIME);
    }
    ~caught_log()
    {
        g_mod_ll[mod_] = old_level_;
        log_timefmt(g_log, old_format_);
        log_default(g_log, stderr);
        fclose(fp_);
        free(buf_);
    }
    caught_log(const caught_log&) = delete;
    caught_log& operator=(const caught_log&) = delete;

    std::string text() const
    {
        fflush(fp_);
        return {buf_, len_};
    }
    bool has(const std::string& s) const { return text().find(s) != std::string::npos; }

private:
    int mod_;
    int old_level_;
    uint32_t old_format_ = 0;
    char* buf_ = nullptr;
    size_t len_ = 0;
    FILE* fp_ = nullptr;
};
