#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

/// Why the tool could not do something: a text for people, and a code for callers that decide by
/// the reason.
class ToolError : public std::runtime_error
{
public:
    /// @param code the system's error number, 0 where the system reported none
    explicit ToolError(const std::string& text, int code = 0)
        : std::runtime_error(text), m_Code(code)
    {}

    /// The error that the system reports by this number.
    static ToolError ofSystem(int code);

    /// Calls `work`. Returns the error when it throws a std::exception.
    static std::optional<ToolError> of(const std::function<void()>& work);

    /// Calls `work`. Puts the path in front of the text of any error.
    static void locate(const std::string& path, const std::function<void()>& work);

    int code() const { return m_Code; }

private:
    int m_Code;
};
