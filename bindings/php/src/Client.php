<?php

declare(strict_types=1);

namespace Korlo\Settings;

/**
 * Reads and changes the settings of a device, and hears of changes that others make.
 *
 *     $settings = new Client();
 *     $settings->merge(['Audio' => ['volume' => 7]]);
 *     echo $settings->value('Audio', 'volume');
 *
 * Settings are arrays, group => key => value. Values that come are strings. PHP makes integers of array keys that look
 * like one, so keys may come as integers, and go back as they came. What is sent may hold strings, integers and floats,
 * which become the strings that PHP makes of them; anything else is a TypeError. Any bytes may be in a name, key or
 * value.
 *
 * Where a method takes names of groups, an asterisk stands for any characters, or none. A name that holds a line feed,
 * or is ".", cannot be in such a list: InvalidNameException. In an array, it can.
 *
 * The client connects with its first call. A call that fails for another reason than its arguments or a refusal closes
 * the connection, and the next call makes a new one, with the same subscriptions. So no call ever gets the answer to
 * another. A call that reads is tried once more when the connection was lost before the call; a change never is.
 *
 * A process that was forked off gets a connection of its own. A client cannot be cloned, and a signal handler that
 * interrupts one of its calls may call close() alone.
 */
final class Client
{
    private const MOST_KEPT_CHANGES = 256;
    private const REFUSED_OPERATION = 'operation';
    private const REFUSED_GROUP = 'group.';

    private ?Address $address;
    private ?Address $connectedTo = null;
    private ?Socket $socket = null;
    private ?Reader $reader = null;
    private int $process = 0;     // that made the connection
    private bool $isBusy = false;

    /** @var list<string> */
    private array $subscriptions = [];
    private bool $mayHaveMissed = false;  // changes, since the connection is another one than that of the subscriptions
    /** @var list<Change> */
    private array $changes = [];          // came while something else was waited for

    /**
     * @param ?string $address "unix:/PATH", "HOST:PORT" or "[IPV6]:PORT"; null is the socket
     *        /run/korlo-settings/socket if there is one, else 127.0.0.1:4711
     * @param float $timeout the most seconds that a call takes, connecting included; only to look up a host's name may
     *        take longer
     * @throws InvalidAddressException
     */
    public function __construct(?string $address = null, private readonly float $timeout = 15.0)
    {
        if (!($timeout > 0.0)) {
            throw new \ValueError('The time-out of a settings client must be greater than 0 seconds');
        }
        $this->address = $address === null ? null : Address::parse($address);
    }

    /**
     * Whether a group is restricted: its name holds "Secure" or "Trusted". No client can change it.
     */
    public static function isRestricted(string $group): bool
    {
        return str_contains($group, 'Secure') || str_contains($group, 'Trusted');
    }

    /**
     * Reads groups. Those that do not exist, or that this client may not read, are not in the result.
     *
     * @return array<array<string>> group => key => value
     * @throws SettingsException
     */
    public function get(string ...$names): array
    {
        return $this->read('get', '', $names);
    }

    /**
     * Reads one value.
     *
     * @return ?string null: there is none
     * @throws SettingsException
     */
    public function value(string $group, string $key): ?string
    {
        return $this->get($group)[$group][$key] ?? null;
    }

    /**
     * Sets keys and leaves everything else. When this returns, the server has carried it out.
     *
     * @param array<array<string|int|float>> $changes group => key => value
     * @param bool $persist false: the change is gone when the server ends
     * @throws RefusedException
     * @throws RestrictedGroupException
     * @throws SettingsException
     */
    public function merge(array $changes, bool $persist = true): void
    {
        $this->checkRestricted(array_keys($changes));
        $this->change('merge', Request::merge($changes, $persist));
    }

    /**
     * Merges the changes if the settings hold every value of $expected, otherwise changes nothing. Nobody else's change
     * comes between the test and the merge.
     *
     * @param array<array<string|int|float>> $expected group => key => value
     * @param array<array<string|int|float>> $changes group => key => value
     * @return bool false: the settings hold another value
     * @throws RefusedException
     * @throws RestrictedGroupException
     * @throws SettingsException
     */
    public function testAndMerge(array $expected, array $changes): bool
    {
        $this->checkRestricted(array_keys($changes));
        return $this->change('testAndMerge', Request::testAndMerge($expected, $changes), true);
    }

    /**
     * Removes the groups that the names select, and merges the replacement. It is carried out as one change.
     *
     * @param array<string> $names
     * @param array<array<string|int|float>> $replacement group => key => value
     * @throws RefusedException
     * @throws RestrictedGroupException
     * @throws InvalidNameException
     * @throws SettingsException
     */
    public function overwrite(array $names, array $replacement = []): void
    {
        $this->replace('overwrite', $names, $replacement);
    }

    /**
     * Removes groups. Their defaults do not return at the next start of the server.
     *
     * @throws RefusedException
     * @throws RestrictedGroupException
     * @throws InvalidNameException
     * @throws SettingsException
     */
    public function erase(string ...$names): void
    {
        $this->replace('erase', $names, []);
    }

    /**
     * Returns groups to the defaults of the device.
     *
     * @throws RefusedException
     * @throws RestrictedGroupException
     * @throws InvalidNameException
     * @throws SettingsException
     */
    public function restore(string ...$names): void
    {
        $this->checkRestricted($names);
        $this->change('restore', Request::restore($names));
    }

    /**
     * From now on, next() returns the changes of these groups, this client's own ones too.
     *
     * @throws InvalidNameException
     * @throws SettingsException
     */
    public function subscribe(string ...$names): void
    {
        $this->read('subscribe', Request::subscribe($names), []);
        $this->subscriptions = self::union($this->subscriptions, $names);
    }

    /**
     * Waits for a change of the groups that are subscribed to. Changes that come during other calls are kept for this
     * one; from the 257th on they are put together with the last one that is kept.
     *
     * After the connection was lost and made anew, one Change more holds what these groups hold by then, since changes
     * may have been missed. It names all groups that are there, and those that were subscribed to by name.
     *
     * The time is that for which a change is waited for: connecting, where it is needed, takes its own. Over TCP a wait
     * for ever does not notice a server that has vanished without a word, as by a power cut: wait for a minute, read
     * something, and wait again.
     *
     * @param ?float $timeout seconds; null waits for ever
     * @return ?Change null: the time is up
     * @throws SettingsException
     */
    public function next(?float $timeout = null): ?Change
    {
        if ($this->changes === []) {
            $deadline = new Deadline($timeout);
            if (!$this->isConnected() || $this->mayHaveMissed) {
                $this->catchUp();
            }
            if ($this->changes === []) {
                return $this->guard('next', '', fn(): ?Change => $this->awaitChange($deadline));
            }
        }
        return array_shift($this->changes);
    }

    /**
     * Ends the connection and the subscriptions. The client can be used again.
     */
    public function close(): void
    {
        $this->disconnect();
        $this->subscriptions = [];
        $this->changes = [];
        $this->mayHaveMissed = false;
    }

    private function __clone()
    {
    }

    /**
     * @param array<string> $names
     * @param array<mixed> $replacement
     */
    private function replace(string $operation, array $names, array $replacement): void
    {
        foreach ($names as $name) {
            if (!is_string($name) && !is_int($name)) {
                throw new \TypeError('The name of a group must be a string, ' . get_debug_type($name) . ' given');
            }
        }
        $names = array_map('strval', $names);
        $this->checkRestricted([...array_values($names), ...array_keys($replacement)]);
        $this->change($operation, Request::overwrite($names, $replacement));
    }

    /**
     * Reads groups, after another request that may be sent twice.
     *
     * @param array<string> $names
     * @return array<array<string>>
     */
    private function read(string $operation, string $before, array $names): array
    {
        $request = $before . Request::get($names);
        return $this->guard($operation, '', function () use ($request, $names): array {
            $deadline = new Deadline($this->timeout);
            $wasConnected = $this->isConnected();
            try {
                return $this->exchange($deadline, $request, $names)[0];
            } catch (ConnectionException $failure) {
                $isLost = !$failure instanceof TimeoutException && $this->reader?->hasPartOfAnAnswer() === false;
                if (!$wasConnected || !$isLost) {
                    throw $failure;
                }
            }
            $this->disconnect();
            return $this->exchange($deadline, $request, $names)[0];
        });
    }

    /**
     * @return bool false: the settings hold another value than the expected one
     */
    private function change(string $operation, string $request, bool $hasOutcome = false): bool
    {
        $request .= Request::get([Request::REFUSED]);
        $consequence = '; the change may or may not be made';
        $exchange = function () use ($request, $hasOutcome): array {
            return $this->exchange(new Deadline($this->timeout), $request, [Request::REFUSED], $hasOutcome);
        };
        [$confirmation, $isMade] = $this->guard($operation, $consequence, $exchange);
        if (!$hasOutcome || !$isMade) {
            $this->checkRefused($confirmation);
        }
        return $isMade;
    }

    /**
     * Runs what uses the connection. A failure closes the connection and says what was done, and where.
     */
    private function guard(string $operation, string $consequence, \Closure $use): mixed
    {
        if ($this->isBusy) {
            throw new \LogicException("$operation() was called while another call of the same client is running");
        }
        $this->isBusy = true;
        try {
            return $use();
        } catch (ConnectionException | ProtocolException $failure) {
            $server = $this->connectedTo?->text ?? 'the usual place';
            $time = $failure instanceof TimeoutException ? " within $this->timeout seconds" : '';
            $reason = $failure->getMessage() . $time . $consequence;
            $text = "$operation() failed with the settings server at '$server': $reason";
            $this->disconnect();
            throw new ($failure::class)($text, 0, $failure);
        } catch (\Throwable $failure) {
            $this->disconnect();
            throw $failure;
        } finally {
            $this->isBusy = false;
        }
    }

    /**
     * Sends a request that ends with a read, and returns its answers; changes that come before them are kept.
     *
     * @param array<string> $names what the read asks for
     * @param bool $hasOutcome the read is the second answer, after an outcome
     * @return array{array<array<string>>, bool} the settings, and the outcome
     */
    private function exchange(Deadline $deadline, string $request, array $names, bool $hasOutcome = false): array
    {
        $greeting = $this->isConnected() ? '' : $this->connect($deadline);
        foreach ($this->reader->readWhatIsThere() as $change) {
            $this->keep($change);
        }
        $this->socket->send($greeting . $request, $deadline);
        $outcome = !$hasOutcome || $this->awaitAnswer($deadline, static fn($answer): bool => is_bool($answer));
        $isAsked = static fn($answer): bool => is_array($answer) && Request::selectsAll($names, $answer);
        return [$this->awaitAnswer($deadline, $isAsked), $outcome];
    }

    /**
     * @param \Closure(array<array<string>>|bool): bool $isExpected
     * @return array<array<string>>|bool
     */
    private function awaitAnswer(Deadline $deadline, \Closure $isExpected): array|bool
    {
        while (($message = $this->reader->read($deadline)) instanceof Change) {
            $this->keep($message);
        }
        if (!$isExpected($message)) {
            throw new ProtocolException('it sent the answer to another request');
        }
        return $message;
    }

    private function isConnected(): bool
    {
        if ($this->reader !== null && $this->process !== getmypid()) {
            $this->disconnect();  // this end belongs to the process that forked this one off
        }
        return $this->reader !== null;
    }

    /**
     * @return string what has to be sent first
     */
    private function connect(Deadline $deadline): string
    {
        $this->connectedTo = $this->address ?? Address::find();
        $this->socket = Socket::open($this->connectedTo, $deadline);
        $this->reader = new Reader($this->socket);
        $this->process = getmypid();
        $this->mayHaveMissed = $this->subscriptions !== [];
        return Request::greeting($this->subscriptions);
    }

    private function disconnect(): void
    {
        $this->socket?->close();
        $this->socket = null;
        $this->reader = null;
    }

    /**
     * Reads what the subscribed groups hold, and keeps it behind the changes that have come.
     */
    private function catchUp(): void
    {
        $settings = $this->read('next', '', $this->subscriptions);
        if ($this->mayHaveMissed) {
            $named = array_filter($this->subscriptions, static fn(string $name): bool => !str_contains($name, '*'));
            $groups = self::union($named, array_keys($settings));
            if ($groups !== []) {
                $this->keep(new Change($groups, $settings));
            }
            $this->mayHaveMissed = false;
        }
    }

    private function awaitChange(Deadline $deadline): ?Change
    {
        try {
            $message = $this->reader->read($deadline);
        } catch (TimeoutException) {
            return null;
        }
        if (!$message instanceof Change) {
            throw new ProtocolException('it sent an answer that nobody had asked for');
        }
        return $message;
    }

    private function keep(Change $change): void
    {
        if (count($this->changes) >= self::MOST_KEPT_CHANGES) {
            $change = array_pop($this->changes)->with($change);
        }
        $this->changes[] = $change;
    }

    /**
     * @param array<string|int> $groups
     */
    private function checkRestricted(array $groups): void
    {
        $restricted = array_filter(array_map('strval', $groups), self::isRestricted(...));
        if ($restricted !== []) {
            $list = self::quoted($restricted);
            throw new RestrictedGroupException("No client can change $list: the names of restricted groups hold " .
                '"Secure" or "Trusted"');
        }
    }

    /**
     * @param array<array<string>> $confirmation
     */
    private function checkRefused(array $confirmation): void
    {
        $refusal = $confirmation[Request::REFUSED] ?? [];
        if (!isset($refusal[self::REFUSED_OPERATION])) {
            return;
        }
        $isGroup = static fn(string|int $key): bool => str_starts_with((string)$key, self::REFUSED_GROUP);
        $groups = array_filter($refusal, $isGroup, ARRAY_FILTER_USE_KEY);
        ksort($groups, SORT_NATURAL);
        $groups = array_values($groups);
        $for = $groups === [] ? '' : ' for ' . self::quoted($groups);
        throw new RefusedException(
            "The settings server refused '{$refusal[self::REFUSED_OPERATION]}': its access rules do not allow it to " .
            "this client$for",
            $groups
        );
    }

    /**
     * @param array<string> $first
     * @param array<string|int> $second
     * @return list<string> without repetitions
     */
    private static function union(array $first, array $second): array
    {
        $names = array_merge(array_values($first), array_map('strval', array_values($second)));
        return array_values(array_unique($names, SORT_STRING));
    }

    /**
     * @param array<string> $names
     */
    private static function quoted(array $names): string
    {
        return "'" . implode("', '", $names) . "'";
    }
}
