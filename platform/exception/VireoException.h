// VireoException: base of every exception that the CommsChannel system
// throws. It carries one text, returned by what(), and can turn that text
// into a self-describing string and back (serialize / deserialize), so that
// an error can be logged or shipped to another process and rebuilt there.
//
// The object is an ordinary value: copyable, no shared state, safe to use
// from any thread that owns it.
#ifndef COMMSCHANNEL_VIREO_EXCEPTION_H
#define COMMSCHANNEL_VIREO_EXCEPTION_H

#include <exception>
#include <string>

// The serialisation half of an exception, kept as a separate interface so
// that code which only stores or forwards errors needs nothing else.
class VireoSerializable {
public:
    virtual ~VireoSerializable();
    // Returns the object's state as a string that deserialize() accepts.
    virtual std::string serialize() const = 0;
    // Restores the state from a string made by serialize(). Returns true on
    // success; on a malformed string returns false and changes nothing.
    virtual bool deserialize(std::string& serialized) = 0;
};

class VireoException : public std::exception, public VireoSerializable {
public:
    VireoException();
    explicit VireoException(const std::string& text);
    VireoException(const VireoException& other);
    VireoException& operator=(const VireoException& other);
    ~VireoException() override;

    // The error text given at construction (or restored by deserialize).
    const char* what() const noexcept override;
    // "VireoException:<length>:<text>", length in decimal bytes of text.
    std::string serialize() const override;
    bool deserialize(std::string& serialized) override;

private:
    std::string m_text;
};

#endif
