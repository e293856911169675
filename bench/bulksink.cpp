// A bulk endpoint that accepts and discards (the test suite's Elasticsearch stand-in in its
// discarding mode): prints its port, serves until standard input ends.
#include <cstdio>
#include <iostream>
#include <string>

#include "support/elasticsearch_standin.h"

int main() {
    vistrel::testing::ElasticsearchStandIn sink;
    sink.bulk_discard(true);
    std::printf("%u\n", static_cast<unsigned>(sink.port()));
    std::fflush(stdout);
    for (std::string line; std::getline(std::cin, line);) {
    }
    std::fprintf(stderr, "bulk sink: %zu records in %zu requests\n", sink.bulk_document_count(),
                 sink.bulk_request_count());
    return 0;
}
