<?php

declare(strict_types=1);

namespace Korlo\SettingsPage;

/**
 * A request that is answered with a refusal; nothing was changed.
 */
final class BadRequest extends \RuntimeException
{
    public function __construct(string $message, public readonly int $status = 400)
    {
        parent::__construct($message);
    }
}
