// Calls of methods on the router's message bus, by the bus's own command line program. A call is a process
// of its own, which is ended when it takes longer than it may: a bus that is silent holds up nobody.
#ifndef TOOLS_BUS_H
#define TOOLS_BUS_H

enum class bus_result {
    done,
    no_bus,    // it cannot be reached, or its program is not there
    no_object, // nobody offers the object, or not this method
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
