"""Extracts the commands of vexa from the sources of cli/, for check-docs. Nothing is built or run."""
import re

STRING = r'"((?:[^"\\]|\\.)*)"'
ARGUMENT = r'(?:(?:"(?:[^"\\]|\\.)*"\s*)+|\w+\s*)'
# The methods of Command that return one of its commands.
METHOD = r'\.(Group|AddGroup|AddCommand)\(\s*'
CHAIN = r'(?:\s*' + METHOD.replace("(Group", "(?:Group") + ARGUMENT + r'(?:,\s*' + ARGUMENT + r')?\))+'


class Commands:
    """Follows the functions in the command line's sources that add commands, starting at RunCommandLine."""

    # The variable that receives the result, and the called function, or a variable and the methods called on it.
    CALL = re.compile(r'(?:(\w+)\s*=\s*)?(?:\b([A-Z]\w+)\(|\b(\w+)(' + CHAIN + r'))')
    STEP = re.compile(METHOD + r'([^,)]+)')

    def __init__(self, tree):
        self.functions, self.commands, self.seen, sites = {}, set(), set(), 0
        for name in tree.names("cli/**/*.cpp"):
            text = tree.text(name)
            sites += len(re.findall(r"\.Add(?:Command|Group)\(", text))
            for m in re.finditer(r"^[\w:]+[\w:<>*& ]*[ *&](\w+)\(([^()]*)\) {\n(.*?)^}", text, re.S | re.M):
                parameters = [p.split("=")[0].split()[-1].lstrip("*&") for p in m[2].split(",") if p.strip()]
                if "Command&" in m[2] or m[1] == "RunCommandLine":
                    self.functions[m[1], len(parameters)] = (f"{name} {m[1]}", parameters, m[3])
        for (called, _), function in list(self.functions.items()):
            if called == "RunCommandLine":
                self.run(function, {"program": ""})
        if len(self.seen) != sites or not sites:
            tree.complain(f"The sources of cli/ add commands in {sites} places, of which {len(self.seen)} can be "
                          "followed. Teach tools/cli_commands.py how they are written.")

    def run(self, function, known):
        """known: the text or command for each parameter. Returns the command that the function returns."""
        name, _, body = function
        known = dict(known)
        for m in self.CALL.finditer(body):
            target, called, parent, chain = m.groups()
            result = None
            if called:
                given = self.arguments(body, m.end())
                if one := self.functions.get((called, len(given))):
                    values = zip(one[1], (self.value(known, argument) for argument in given))
                    result = self.run(one, {p: value for p, value in values if value is not None})
            elif parent in known:
                result = known[parent]
                for step in self.STEP.finditer(chain):
                    if (word := self.value(known, step[2])) is None:
                        result = None
                        break
                    result = f"{result} {word}".strip()
                    if step[1] != "Group":
                        self.commands.add(result)
                        self.seen.add((name, m.start(4) + step.start()))
            if target and result is not None:
                known[target] = result
        returned = re.search(r"return (\w+);\s*$", body)
        return known.get(returned[1]) if returned else None

    @staticmethod
    def value(known, expression):
        expression = expression.strip().lstrip("*&")
        if literal := re.fullmatch(STRING, expression):
            return literal[1]
        if group := re.fullmatch(r'(\w+)\.Group\("(\w+)"\)', expression):
            return f"{known[group[1]]} {group[2]}".strip() if group[1] in known else None
        return known.get(expression)

    @staticmethod
    def arguments(text, begin):
        """The arguments of the call whose parenthesis ends at begin."""
        depth, given = 0, []
        for at in re.compile(r'"(?:[^"\\]|\\.)*"|[()\[\]{},]').finditer(text, begin):
            if at[0] in ("(", "[", "{"):
                depth += 1
            elif depth > 0:
                depth -= at[0] in (")", "]", "}")
            elif at[0] in (",", ")"):
                given.append(text[begin:at.start()])
                begin = at.end()
                if at[0] == ")":
                    break
        return given
