"""Methods: functions of Python that peers may call."""

from __future__ import annotations

import asyncio
import inspect
import typing
import weakref
from collections.abc import Callable
from typing import Any, NamedTuple, TypeVar, Union, overload

from ._contexts import log
from ._core import Core
from ._errors import Error, Misuse, NoMethod, Status, WrongArguments
from ._library import quick
from ._peer import Caller
from ._transfers import Place, Source, sink_of, source_of
from ._types import Fit, Misfit, fit_for
from ._values import Values, contents, details_block, result_block

Function = TypeVar("Function", bound=Callable[..., Any])
ChooseSink = Callable[[Caller, int], Union[Place, None]]
_MISSING: Any = inspect.Parameter.empty


class _Parameter(NamedTuple):
    name: str
    fit: Fit
    default: Any
    wants: Any  # the annotation


class Method:
    """A function with what its parameters want.

    A parameter annotated with Caller gets who called; one with Values gets all arguments; keyword-only
    ones get keyed arguments."""

    def __init__(self, name: str | None, function: Callable[..., Any], ordered: bool,
                 sink: ChooseSink | None) -> None:
        self.name = name
        self.function = function
        self.ordered = ordered
        self.sink = sink
        self.is_async = inspect.iscoroutinefunction(function)
        self.about = (inspect.getdoc(function) or "").partition("\n")[0]
        self._positional: list[_Parameter] = []  # those for Caller and Values among them
        self._keyed: list[_Parameter] = []
        self._rest: Fit | None = None  # of *args
        self._takes_keys = False  # **keys
        returns = self._read_signature()
        self._takes_all = any(one.wants is Values for one in self._positional)
        self._counted = [one for one in self._positional if one.wants not in (Caller, Values)]
        self._needed = sum(one.default is _MISSING and not one.fit.name.endswith("?")
                           for one in self._counted)
        self._views = [i for i, one in enumerate(self._counted) if one.wants is memoryview]
        self._is_plain = len(self._counted) == len(self._positional) and not (
            self._views or self._keyed or self._rest or self._takes_keys)
        self.signature = self._signature(returns)

    def _read_signature(self) -> Any:
        hints = typing.get_type_hints(self.function)
        for name, one in inspect.signature(self.function).parameters.items():
            wants = hints.get(name, Any)
            fit = fit_for(Any if wants in (Caller, Values) else wants)
            if one.kind is one.VAR_POSITIONAL:
                self._rest = fit
            elif one.kind is one.VAR_KEYWORD:
                self._takes_keys = True
            else:
                (self._keyed if one.kind is one.KEYWORD_ONLY else self._positional).append(
                    _Parameter(name, fit, one.default, wants))
        return hints.get("return")

    def _signature(self, returns: Any) -> str:
        names = [one.fit.name for one in self._counted]
        names += ["..."] if self._rest or self._takes_all else []
        names += [f"{one.name}: {one.fit.name}" for one in self._keyed]
        text = f"({', '.join(names)})"
        if returns in (None, type(None)):
            return text
        name = {Source: "bytes", Values: "..."}.get(returns) or fit_for(returns).name
        return f"{text} -> {name}"

    # ---- Arguments

    def arguments(self, caller: Caller) -> tuple[list[Any], dict[str, Any]]:
        """WrongArguments if they do not fit."""
        block = quick.request_arguments(caller._request)
        values, keys = contents(block, self._views)
        if not self._needed <= len(values) <= len(self._counted):
            self._check_count(len(values), bool(keys))
        elif self._is_plain and len(values) == len(self._counted):
            try:
                return [one.fit.of(value) for one, value in zip(self._counted, values)], {}
            except Misfit:
                pass  # what follows says which one
        rest = enumerate(values)
        args: list[Any] = []
        for one in self._positional:
            if one.wants is Caller:
                args.append(caller._introduced())
            elif one.wants is Values:
                args.append(Values(tuple(values), keys))
            else:
                args.append(_argument(one, next(rest, None), keys))
        if self._rest:
            args += [_fitting(self._rest, value, f"argument {i + 1}") for i, value in rest]
        return args, self._keyed_arguments(keys) if self._keyed or self._takes_keys else {}

    def _check_count(self, got: int, keyed: bool) -> None:
        few = got < self._needed and not keyed
        if self._takes_all or not few and (got <= len(self._counted) or self._rest):
            return
        takes = self._needed if few else len(self._counted)
        exact = self._needed == len(self._counted) and not self._rest
        bound = "" if exact else "at least " if few else "at most "
        raise WrongArguments(f"takes {bound}{takes} argument{'s' if takes != 1 else ''}, got {got}")

    def _keyed_arguments(self, keys: dict[str, Any]) -> dict[str, Any]:
        result = {}
        if self._takes_keys:
            taken = {one.name for one in self._positional}
            result = {name: value for name, value in keys.items() if name not in taken}
        for one in self._keyed:
            if one.name in keys or one.default is _MISSING:
                result[one.name] = _fitting(one.fit, keys.get(one.name), f'argument "{one.name}"')
        return result

    # ---- Requests

    def serve(self, core: Core, request: int) -> None:
        """On a worker of the library."""
        caller = Caller(core, request)
        try:
            args, keys = self.arguments(caller)
            _answer(caller, self.function(*args, **keys))
        except BaseException as error:
            _fail(caller, error)

    async def serve_async(self, core: Core, request: int) -> None:
        """On the event loop."""
        caller = Caller(core, request)
        try:
            args, keys = self.arguments(caller)
            _answer(caller, await self.function(*args, **keys))
        except Exception as error:
            _fail(caller, error)
        except BaseException as error:
            _fail(caller, error)
            raise

    def choose_sink(self, core: Core, request: int, total: int) -> tuple[Status, Any]:
        """Where data that come go. The request stays the library's."""
        caller = Caller(core, request)
        try:
            assert self.sink is not None
            return Status.OK, sink_of(self.sink(caller._introduced(), total))
        except Error as error:
            return error.status, None
        except Exception:
            log.warning("%s: no place for the data", self.name, exc_info=True)
            return Status.FAILED, None
        finally:
            caller._taken()


def _argument(one: _Parameter, found: tuple[int, Any] | None, keys: dict[str, Any]) -> Any:
    if found is not None:
        return _fitting(one.fit, found[1], f"argument {found[0] + 1}")
    takes_map = one.fit.name.startswith("{")
    if one.name in keys and not takes_map:
        return _fitting(one.fit, keys[one.name], f'argument "{one.name}"')
    if one.default is not _MISSING:
        return one.default
    # A struct may come as keyed values.
    return _fitting(one.fit, takes_map and keys or None, f"argument {one.name}")


def _fitting(fit: Fit, value: Any, what: str) -> Any:
    try:
        return fit.of(value)
    except Misfit as misfit:
        raise WrongArguments(f"{what}{misfit}") from None


def _answer(caller: Caller, result: Any) -> None:
    if isinstance(result, Source):
        block, source = result_block(result.result), source_of(result)
        quick.request_answer_data(caller._taken(), block.taken(), source)
    else:
        block = result_block(result)
        quick.request_answer(caller._taken(), block.taken())


def _fail(caller: Caller, error: BaseException) -> None:
    request = caller._taken()
    if request is None:
        return
    if isinstance(error, asyncio.CancelledError):
        quick.request_free(request)
        return
    status, text, code, details = Status.FAILED, f"{type(error).__name__}: {error}", 0, None
    if isinstance(error, Error):
        text, code, details = str(error), error.code, error.details
        # What comes from another call of the handler is no failure of this method's own.
        if isinstance(error, (WrongArguments, NoMethod)) and not error.method:
            status = error.status
    else:
        log.warning("a handler failed", exc_info=error)
    try:
        block = None if details is None else details_block(details)
    except Exception:
        block = None
    quick.request_fail(request, status, code, text.encode("utf-8", "surrogateescape"),
                       block and block.taken())


class Methods:
    """A table of methods. Any number of clients and servers may use one; changes count at once.

    Fill it before you connect or listen: otherwise a call may come before its method."""

    def __init__(self) -> None:
        self._methods: dict[str | None, Method] = {}
        self._users: weakref.WeakSet[Core] = weakref.WeakSet()

    @overload
    def method(self, name: Function) -> Function: ...

    @overload
    def method(self, name: str | None = None, *, ordered: bool = False,
               sink: ChooseSink | None = None) -> Callable[[Function], Function]: ...

    def method(self, name: Any = None, *, ordered: bool = False,
               sink: ChooseSink | None = None) -> Any:
        """Adds the decorated function, under its own name or another one.

        `ordered`: takes the calls of a peer one at a time, in order of arrival. `sink`: a function
        of the caller and the size that says where data go: a path, an open file, or None."""
        if callable(name):
            return self.method()(name)

        def decorate(function: Function) -> Function:
            self._add(Method(name or function.__name__, function, ordered, sink))
            return function

        return decorate

    def catch_all(self, function: Function) -> Function:
        """The decorated function gets the calls of all other names."""
        self._add(Method(None, function, False, None))
        return function

    def remove(self, name: str) -> bool:
        """Handlers that run go on. False: there was no such method."""
        if self._methods.pop(name, None) is None:
            return False
        for core in list(self._users):
            core.remove(name)
        return True

    def _add(self, method: Method) -> None:
        if method.name in self._methods:
            raise Misuse(f"there is a method {method.name} already")
        for core in list(self._users):
            core.add(method)
        self._methods[method.name] = method

    def _add_user(self, core: Core) -> None:
        for method in list(self._methods.values()):
            core.add(method)
        self._users.add(core)
