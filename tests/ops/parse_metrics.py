#!/usr/bin/env python3
"""Reads a Prometheus text exposition on standard input with the reference client's parser and
prints one JSON line per sample: name, labels, value. Any parse error exits non-zero."""
import json
import sys

from prometheus_client.parser import text_string_to_metric_families

text = sys.stdin.read()
for family in text_string_to_metric_families(text):
    for sample in family.samples:
        print(json.dumps({"family": family.name, "type": family.type, "name": sample.name,
                          "labels": sample.labels, "value": sample.value}))
