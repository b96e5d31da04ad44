// Reads the text files of the network scripts: lines through a fixed buffer, tokens by separators. A line
// longer than the buffer is read in several pieces, each of which counts as a line.
#ifndef CONFIG_TEXT_FILE_H
#define CONFIG_TEXT_FILE_H

#include <cstdio>

constexpr int DNSPROXY_LINE_SIZE = 1025; // bytes, with the terminating NUL

class text_file {
public:
    explicit text_file(const char *path) : file_(fopen(path, "re")) {}
    ~text_file()
    {
        if (file_ != nullptr)
            fclose(file_);
    }
    text_file(const text_file &) = delete;
    text_file &operator=(const text_file &) = delete;
    [[nodiscard]] bool is_open() const { return file_ != nullptr; }

    // The next line with its line feed, or nullptr at the end of the file; valid until the next call.
    char *next_line() { return fgets(line_, sizeof line_, file_); }

private:
    FILE *file_;
    char line_[DNSPROXY_LINE_SIZE];
};

#endif
