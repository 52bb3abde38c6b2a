<?php

declare(strict_types=1);

namespace Korlo\Settings;

/**
 * When the time for something is up, on the monotonic clock.
 *
 * @internal
 */
final class Deadline
{
    private const NANOSECONDS = 1e9;
    private const FOREVER = 1e9;  // seconds, some thirty years: what a time in nanoseconds can surely hold

    private readonly ?float $end;

    /**
     * @param ?float $seconds from now; null is never
     */
    public function __construct(?float $seconds)
    {
        $this->end = $seconds === null || $seconds >= self::FOREVER ? null : self::now() + max($seconds, 0.0);
    }

    /**
     * The seconds that are left, 0 when the time is up; null is for ever.
     */
    public function left(): ?float
    {
        return $this->end === null ? null : max($this->end - self::now(), 0.0);
    }

    private static function now(): float
    {
        return hrtime(true) / self::NANOSECONDS;
    }
}
