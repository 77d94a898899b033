// libfcgi, fed with requests that were read beforehand.
#pragma once

#include <fcgiapp.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "alarmd/requests/fcgi_request_reader.h"
#include "knihovny/descriptor.h"

// The library reads a request while it comes in, from one client at a time, waits for that client without
// limit, and has faith in it: a management record with many names, or a parameter with a length near 2^31,
// ends the process. So it gets no client's connection but one end of a local pair, and over it, in records
// made here, what FcgiGate let pass. For one thread; FCGX_Init has to be called before.
class FcgiLibrary {
  public:
    FcgiLibrary();
    ~FcgiLibrary();
    FcgiLibrary(const FcgiLibrary&) = delete;
    FcgiLibrary& operator=(const FcgiLibrary&) = delete;

    // Makes request the present one. False when the library does not take it, which is when descriptors run
    // out.
    bool accept(const FcgiRequest& request);

    // A parameter of the present request, empty when it has none of that name.
    std::string param(const char* name) const;

    // The body of the present request.
    std::string body();

    // Adds to the answer to the present request.
    void write(std::string_view text);

    // Ends the present request and returns the records of its answer; nothing when there is none.
    std::string finish();

  private:
    void connect();
    void feed();

    FCGX_Request request_;
    std::optional<Descriptor> own_end_;  // of the pair
    std::string records_;                // of the present request
    size_t fed_ = 0;                     // bytes of them that the library has got
};
