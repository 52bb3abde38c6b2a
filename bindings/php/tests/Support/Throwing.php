<?php

declare(strict_types=1);

namespace Korlo\Settings\Tests\Support;

/**
 * For test cases that go on after an exception.
 */
trait Throwing
{
    /**
     * @template T of \Throwable
     * @param class-string<T> $class
     * @return T
     */
    private static function assertThrows(string $class, callable $call): \Throwable
    {
        try {
            $call();
        } catch (\Throwable $thrown) {
            self::assertInstanceOf($class, $thrown, (string)$thrown);
            return $thrown;
        }
        self::fail("$class was not thrown");
    }
}
