#include "ctl/secret_input.h"

#include "ctl/failure.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

static constexpr int patience_ms = 60000;

/* What is read of a pipe with that in it, or "STATUS TEXT" of the failure. */
static std::string read_of(const std::string& given) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    std::thread writer([&] {
        for (size_t at = 0; at < given.size();) {
            ssize_t put = write(ends[1], given.data() + at, given.size() - at);
            if (put <= 0) {
                break;
            }
            at += static_cast<size_t>(put);
        }
        close(ends[1]);
    });
    std::string text;
    try {
        secret_text value;
        read_secret(ends[0], "the secret \"db\"", value);
        text = *value;
    } catch (const failure& f) {
        text = std::to_string(f.status) + " " + f.text;
    }
    for (char rest[4096]; read(ends[0], rest, sizeof rest) > 0;) {
    }
    writer.join();
    close(ends[0]);
    return text;
}

TEST(secret_input, is_one_line_of_standard_input) {
    EXPECT_EQ(read_of("s3cret\n"), "s3cret");
    EXPECT_EQ(read_of("s3cret"), "s3cret");
    EXPECT_EQ(read_of("s3cret\r\n"), "s3cret");
    EXPECT_EQ(read_of("  blanks stay \n"), "  blanks stay ");
    EXPECT_EQ(read_of(std::string(4096, 'x') + "\n"), std::string(4096, 'x'));
}

TEST(secret_input, what_is_no_line_is_refused_without_saying_it) {
    const std::string none =
        "2 the secret \"db\" has to be given on standard input, as one line; nothing was changed";
    EXPECT_EQ(read_of(""), none);
    EXPECT_EQ(read_of("\n"), none);
    EXPECT_EQ(read_of("\r\n"), none);
    EXPECT_EQ(read_of("s3cret\nmore"),
              "2 there is more than one line on standard input; nothing was changed");
    EXPECT_EQ(read_of("s3cret\n\n"),
              "2 there is more than one line on standard input; nothing was changed");
    for (size_t size : {4097u, 5000u, 1000000u}) {
        EXPECT_EQ(read_of(std::string(size, 'x')),
                  "2 the secret \"db\" is too long: 4096 bytes at the most");
    }
}

/* Somebody at a terminal, with the reading in a process of its own. */
class terminal {
public:
    terminal() {
        child_ = forkpty(&fd_, nullptr, nullptr, nullptr);
        if (child_ == 0) {
            int status = 0;
            try {
                secret_text value;
                read_secret(STDIN_FILENO, "the secret \"db\"", value);
                dprintf(STDOUT_FILENO, "read %zu bytes%s\n", (*value).size(),
                        *value == "s3cret" ? ", the right ones" : "");
            } catch (const failure& f) {
                dprintf(STDOUT_FILENO, "%d %s\n", f.status, f.text.c_str());
                status = 9;
            }
            _exit(status);
        }
    }
    ~terminal() {
        close(fd_);
        if (child_ > 0) {
            kill(child_, SIGKILL);
            waitpid(child_, nullptr, 0);
        }
    }
    terminal(const terminal&) = delete;
    terminal& operator=(const terminal&) = delete;

    /* Until the text has been shown; everything shown so far. */
    const std::string& wait_for(const std::string& text) {
        while (shown_.find(text) == std::string::npos) {
            pollfd there{fd_, POLLIN, 0};
            char buffer[4096];
            ssize_t got = 0;
            if (poll(&there, 1, patience_ms) <= 0 ||
                (got = read(fd_, buffer, sizeof buffer)) <= 0) {
                ADD_FAILURE() << "not shown: " << text << "\n" << shown_;
                break;
            }
            shown_.append(buffer, static_cast<size_t>(got));
        }
        return shown_;
    }
    void type(const std::string& text) {
        EXPECT_EQ(write(fd_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    bool is_silent() const {
        termios now{};
        EXPECT_EQ(tcgetattr(fd_, &now), 0);
        return (now.c_lflag & ECHO) == 0;
    }
    /* As waitpid() has it. */
    int end() {
        int status = 0;
        waitpid(std::exchange(child_, 0), &status, 0);
        return status;
    }

private:
    int fd_ = -1;
    pid_t child_ = 0;
    std::string shown_;
};

TEST(secret_input, a_terminal_shows_nothing_and_asks_twice) {
    terminal t;
    t.wait_for("Value of the secret \"db\", which is not shown: ");
    EXPECT_TRUE(t.is_silent());
    t.type("s3cret\n");
    t.wait_for("Once more: ");
    t.type("s3cret\n");
    const std::string& shown = t.wait_for("read 6 bytes, the right ones");
    EXPECT_EQ(shown.find("s3cret"), std::string::npos) << shown;
    EXPECT_EQ(t.end(), 0);
    EXPECT_FALSE(t.is_silent());
}

TEST(secret_input, two_different_texts_change_nothing) {
    terminal t;
    t.wait_for("not shown: ");
    t.type("s3cret\n");
    t.wait_for("Once more: ");
    t.type("s3cres\n");
    const std::string& shown = t.wait_for("2 the two were not the same; nothing was changed");
    EXPECT_EQ(shown.find("s3cre"), std::string::npos) << shown;
    t.end();
}

/* At once, too: it may come before anything is read. */
TEST(secret_input, a_signal_leaves_the_terminal_as_it_was) {
    for (int i = 0; i < 100; i++) {
        terminal t;
        t.wait_for("not shown: ");
        EXPECT_TRUE(t.is_silent());
        t.type(i % 2 == 0 ? "\x03" : "s3c\x03");
        const int status = t.end();
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << status;
        EXPECT_FALSE(t.is_silent());
    }
}
