"""Spellings of a path that some server, somewhere, has taken for that path."""

import itertools

# Each rewrites a whole path; the argument `pick` says whether a character is to be rewritten.
DOTS = (".", "%2e", "%2E", "%252e", "%252E", "%c0%ae", "%C0%AE", "%e0%80%ae", "%u002e", "%%32e",
        "..", "%2e%2e", ".%00", "%uff0e", "%ef%bc%8e")
SLASHES = ("/", "//", "///", "/./", "%2f", "%2F", "%252f", "%5c", "\\", "%255c", "/\\", "%c0%af",
           "%e0%80%af", "%u2215", "/%2e/", "/x/../", "/%2e%2e/", "%2f%2e%2e%2f", ";/", "/;a=b/",
           "/%20/", "/%09", "%00/", "/.//", "/public/../", "/public/%2e%2e/")
TAILS = ("", "?", "?x=/../private", "?%2e%2e/", "#", "#x", "/", "/.", "/..", "%00", "%00.html",
         "%20", ".", "..", ";", ";a=b", ";.html", "%0a", "%0d%0a", "~", ".gz", "%3f", "%23",
         "::$DATA", "\\", "/%2e", "?/public/note.txt", "%2f", "/./", "//")
HEADS = ("", "", "", "/public/..", "/./", "//", "/%2e", "/public/%2e%2e", "/public/%2E%2E/", "/x/..",
         "\\", "/\\", "/%5c", "/;", "/index.html/..", "/public/note.txt/..", "/%2e%2e", "/..;/",
         "/small/..", "/echo/..", "/ws/echo/..", "/chat/../", "%2f", "/private/..", "/PRIVATE/..")


def _percent(character, numbers):
    """One character, encoded one way or another."""
    code = ord(character)
    forms = (f"%{code:02x}", f"%{code:02X}", f"%25{code:02x}", f"%{code:02X}".swapcase(),
             f"%c{code >> 6:x}%{0x80 | code & 0x3F:x}", f"%u00{code:02x}",
             f"%e0%{0x80 | code >> 6:x}%{0x80 | code & 0x3F:x}")
    return numbers.choice(forms)


def _letters(path, numbers):
    """Letters as they are, encoded or in the other case."""
    share = numbers.choice((0.1, 0.3, 1.0))
    manner = numbers.choice(("encode", "once", "case", "encode"))
    chosen = numbers.randrange(len(path))
    text = ""
    for place, character in enumerate(path):
        if not character.isalpha():
            text += character
        elif manner == "once" and place >= chosen:
            text += f"%{ord(character):02x}"
            chosen = len(path)
        elif manner == "case" and numbers.random() < share:
            text += character.swapcase()
        elif manner == "encode" and numbers.random() < share:
            text += _percent(character, numbers)
        else:
            text += character
    return text


def _marks(path, numbers):
    """Dots and slashes in other forms; sometimes the same form everywhere."""
    dot, slash = numbers.choice(DOTS), numbers.choice(SLASHES)
    same = numbers.random() < 0.5
    text = path[0]
    for character in path[1:]:
        if character == "." and (same or numbers.random() < 0.5):
            text += dot if same else numbers.choice(DOTS)
        elif character == "/" and (same or numbers.random() < 0.5):
            text += slash if same else numbers.choice(SLASHES)
        else:
            text += character
    return text


def _one(path, numbers):
    text = path
    if numbers.random() < 0.5:
        text = _letters(text, numbers)
    if numbers.random() < 0.7:
        text = _marks(text, numbers)
    if numbers.random() < 0.4:
        text = numbers.choice(HEADS) + text
    if numbers.random() < 0.4:
        text += numbers.choice(TAILS)
    return text


def spellings(path, count, numbers):
    """`count` different spellings, the plain one and those with one change first."""
    plain = itertools.chain(
        [path], (path + tail for tail in TAILS), (head + path for head in HEADS),
        (path.replace(".", dot) for dot in DOTS),
        (path[0] + path[1:].replace("/", slash) for slash in SLASHES))
    seen = set()
    for text in itertools.chain(plain, (_one(path, numbers) for _ in itertools.count())):
        if len(seen) >= count:
            return
        if text not in seen and text:
            seen.add(text)
            yield text
