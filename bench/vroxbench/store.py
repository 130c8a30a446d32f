"""The raw numbers: one record for each cell that was measured, in a JSON file that grows cell by cell, so
that a comparison can be gathered in several sittings."""
import json
import os
import time
from pathlib import Path


class Store:
    def __init__(self, path):
        self.path = Path(path)
        self.head, self.cells = {}, []
        if self.path.exists():
            self.head = json.loads(self.path.read_text())
            self.cells = self.head.pop("cells")

    def begin(self, head):
        """Starts a file, or goes on with one that was begun with the same vrox and the same settings."""
        if not self.head:
            self.head = {"date": time.strftime("%F"), **head}
        for what, mine, its in (("vrox", head["vrox"]["sha256"], self.head["vrox"]["sha256"]),
                                ("--seconds", head["scale"], self.head["scale"])):
            if mine != its:
                raise SystemExit(f"bench: {self.path} was begun with another {what}: {its}; name another file")
        self.head["skipped"] = {**self.head.get("skipped", {}), **head["skipped"]}

    def has(self, scenario, contender, number):
        return any((c["scenario"], c["contender"], c["round"]) == (scenario, contender, number) for c in self.cells)

    def add(self, scenario, contender, number, result):
        self.cells.append({"scenario": scenario, "contender": contender, "round": number,
                           "load_average": round(os.getloadavg()[0], 2), **result})
        self._write()

    def _write(self):
        self.path.parent.mkdir(parents=True, exist_ok=True)
        head = json.dumps(self.head, indent=1).removesuffix("\n}")
        lines = ",\n".join(json.dumps(cell) for cell in self.cells)  # a line each, for whoever compares files
        new = self.path.with_suffix(".new")
        new.write_text(f'{head},\n "cells": [\n{lines}\n]}}\n')
        new.replace(self.path)

    def figures(self, scenario):
        """{key: {contender: [value of each round]}}, and {contender: text of its last failure}."""
        values, errors = {}, {}
        for cell in self.cells:
            if cell["scenario"] != scenario:
                continue
            for key, value in cell["values"].items():
                values.setdefault(key, {}).setdefault(cell["contender"], []).append(value)
            if cell["error"]:
                errors[cell["contender"]] = cell["error"]
        return values, errors

    def rounds(self, scenario):
        return len({cell["round"] for cell in self.cells if cell["scenario"] == scenario})
