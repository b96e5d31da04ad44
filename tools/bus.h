// Calls of methods on the router's message bus, by the bus's command line program. Each call is a process
// that is killed at a time limit, so a silent bus cannot stop the caller.
#ifndef TOOLS_BUS_H
#define TOOLS_BUS_H

enum class bus_result {
    done,
    no_bus,    // it cannot be reached, or its program is not there
    no_object, // the object or the method is not registered
    refused,   // to this user
    silent,    // no answer in time
    failed,    // any other way
};

// Calls a method with arguments as a JSON object. On success `*reply` is the answer as JSON text, empty where
// there is none; the caller frees it. Otherwise it is nullptr. Takes four seconds at most.
bus_result bus_call(const char *object, const char *method, const char *arguments, char **reply);

// What went wrong, for people: "the bus does not answer".
const char *bus_words(bus_result result);

#endif
