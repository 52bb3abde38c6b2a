<?php

declare(strict_types=1);

namespace Korlo\SettingsPage;

/**
 * How a change has ended: what the page says, and what it draws in the place of the settings.
 */
final class Outcome
{
    /**
     * @param int $status 200, or that of the failure
     * @param ?Draft $draft what was typed and has to stay
     */
    public function __construct(
        public readonly string $message,
        public readonly int $status = 200,
        public readonly ?Draft $draft = null
    ) {
    }

    public function isDone(): bool
    {
        return $this->status === 200;
    }
}
