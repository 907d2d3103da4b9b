"""The usage document is read as the runtime's parser reads it, wherever it is damaged."""

import itertools
import json
from unittest import mock

from support import PlainTest, TrackerTest

ENTRY = {"tool": "a", "action": "x", "outcome": "ok", "alias_hit": True, "calls": 3, "timed_calls": 2, "total_ms": 2.5}


class DocumentTests:
    def test_every_changed_character_of_a_document(self):
        """What the module writes is read natively; with a blank before it, by the runtime's parser."""
        document = json.dumps([ENTRY, ENTRY | {"action": None, "calls": -120, "total_ms": -0.5}], separators=(",", ":"))
        self.enterContext(mock.patch.object(self.module, "_known", lambda tool, action: True))
        tracker = self.make()
        self.assertNotEqual(self.read(tracker, document), ("{}", 0))
        for place, new in itertools.product(range(len(document) + 1), ["", *'019-.eE"\\,:{}[] n\0\x7f\x80é\ud800']):
            for rest in (place, place + 1):
                text = document[:place] + new + document[rest:]
                self.assertEqual(self.read(tracker, text), self.read(tracker, " " + text), text)

    def read(self, tracker, document):
        # What a tracker reads from the document, as text, and how many warnings there were.
        tracker._usage, self.db.answer = {}, (document,)
        self.warning.reset_mock()
        tracker._load_usage()
        return repr(tracker._usage), self.warning.call_count


class NativeDocument(DocumentTests, TrackerTest): ...


class PlainDocument(DocumentTests, PlainTest): ...
