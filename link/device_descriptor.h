// A local descriptor: the device type that other nodes see, and the handlers of their requests.
#pragma once

#include <string>

namespace lumora {

// Describes a local resource. Handlers are called on threads of the platform; true means that the request
// was handled.
class LinkDeviceDescriptor {
public:
    // The requester of one request.
    class Port {
    public:
        void SetAddress(const std::string& text) { address = text; }
        void SetPort(int number) { port = number; }
        const std::string& GetAddress() const { return address; }

    private:
        std::string address;  // IPv4, dotted

    public:
        int port = 0;
    };

    virtual ~LinkDeviceDescriptor() = default;

    // The text by which the resource is found.
    virtual const std::string& GetDescriptor() const = 0;

    // value holds the value of the request and takes the reply.
    virtual bool OnGet(const Port& remote, const std::string& key, std::string& value);
    virtual bool OnPut(const Port& remote, const std::string& key, const std::string& value);
    virtual bool OnPost(const Port& remote, const std::string& key, const std::string& value);
    virtual bool OnDelete(const Port& remote, const std::string& key, const std::string& value);
    // value holds the setup string and takes the reply.
    virtual bool OnSetupMediaService(const Port& remote, std::string& value);
};

}  // namespace lumora
